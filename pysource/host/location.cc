#include "pysource/host/location.h"

#include <filesystem>
#include <system_error>
#include <utility>

#include "pysource/host/errors.h"
#include "pysource/host/memoryuse.h"
#include "pysource/host/repr.h"

namespace pysource {
namespace {

constexpr TextView kFileScheme = "file://";

}  // namespace

CResourceLocation::CResourceLocation(Text url)
    : fUrl(std::move(url)), _fHash(static_cast<size_t>(HashBytes(fUrl))) {}

CResourceLocation::~CResourceLocation() = default;

bool CResourceLocation::DoesResourceExist() const {
  const auto path = PathForLocation(this);
  std::error_code ignored;
  return path && std::filesystem::exists(*path, ignored);
}

Text CResourceLocation::Repr() const { return "Location(" + pysource::Repr(fUrl) + ")"; }

Text Loc::Repr() const { return _fLocation ? _fLocation->Repr() : "None"; }

bool operator<(Loc a, Loc b) {
  if (!a || !b) {
    throw CTypeError("an absent location cannot be ordered");
  }
  return a->fUrl < b->fUrl;
}

bool IsAsyncInspectLocation(Loc loc) { return loc->IsAsyncInspected(); }

std::optional<std::string> PathForLocation(Loc loc) {
  if (!loc || !loc->fUrl.starts_with(kFileScheme)) {
    return std::nullopt;
  }
  return loc->fUrl.substr(kFileScheme.size());
}

Text UrlForPath(const std::string& path) {
  std::error_code error;
  std::filesystem::path absolute = std::filesystem::absolute(path, error);
  if (error) {
    absolute = path;
  }
  std::string normal = absolute.lexically_normal().string();
  while (normal.size() > 1 && normal.back() == '/') {
    normal.pop_back();
  }
  return Text(kFileScheme) + normal;
}

CLocationCache::CLocationCache() = default;
CLocationCache::~CLocationCache() = default;

std::unique_ptr<CResourceLocation> CLocationCache::MakeLocation(TextView url) const {
  return std::make_unique<CResourceLocation>(Text(url));
}

Loc CLocationCache::GetLocation(TextView url) {
  const std::lock_guard lock(_fMutex);
  const auto known = _fLocations.find(url);
  if (known != _fLocations.end()) {
    return known->second.get();
  }
  auto location = MakeLocation(url);
  // MakeLocation may normalise the URL, and a location with the normalised one may already exist.
  const TextView own_url = location->fUrl;
  return _fLocations.emplace(own_url, std::move(location)).first->second.get();
}

Loc CLocationCache::GetLocationForPath(const std::string& path) {
  return GetLocation(UrlForPath(path));
}

Loc CLocationCache::GetBuiltinLoc() { return GetLocation("builtins:"); }

size_t CLocationCache::Size() const {
  const std::lock_guard lock(_fMutex);
  return _fLocations.size();
}

size_t CLocationCache::MemoryUse() const {
  const std::lock_guard lock(_fMutex);
  // A node holds a link, the view, the owning pointer and the hash.
  size_t bytes = _fLocations.bucket_count() * sizeof(void*);
  for (const auto& [url, location] : _fLocations) {
    bytes +=
        3 * sizeof(void*) + sizeof(TextView) + sizeof(CResourceLocation) + HeapUse(location->fUrl);
  }
  return bytes;
}

}  // namespace pysource
