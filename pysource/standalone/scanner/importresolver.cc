#include "pysource/standalone/scanner/importresolver.h"

#include <sys/stat.h>

#include <optional>
#include <utility>

#include "pysource/host/hash.h"
#include "pysource/scopeinfo/records/vocabulary.h"
#include "pysource/standalone/scanner/sourcefile.h"

namespace pysource::standalone {
namespace {

bool IsFile(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool IsPackage(const std::string& folder) {
  return IsFile(folder + "/__init__.py") || IsFile(folder + "/__init__.pyi");
}

// The folder above `folder`; absent for the root and for a relative path of one part.
std::optional<std::string> FolderAbove(const std::string& folder) {
  const size_t slash = folder.rfind('/');
  if (slash == std::string::npos || folder.size() == 1) {
    return std::nullopt;
  }
  return slash == 0 ? "/" : folder.substr(0, slash);
}

}  // namespace

CImportResolver::~CImportResolver() = default;

CFileImportResolver::CFileImportResolver(CLocationCache& loc_cache, std::vector<std::string> roots)
    : _fLocCache(loc_cache),
      _fRoots(std::move(roots)),
      _fShards(std::make_unique<std::array<CShard, 16>>()) {}

CFileImportResolver::~CFileImportResolver() = default;

CFileImportResolver::CShard& CFileImportResolver::ShardOf(TextView text) const {
  return (*_fShards)[HashBytes(text) % _fShards->size()];
}

Loc CFileImportResolver::Resolve(Loc from, TextView module) const {
  const std::optional<std::string> path = PathForLocation(from);
  if (!path) {
    return nullptr;
  }
  std::optional<std::string> folder = FolderAbove(*path);
  if (module.starts_with('.')) {
    module.remove_prefix(1);
    while (folder && module.starts_with('.')) {
      folder = FolderAbove(*folder);
      module.remove_prefix(1);
    }
    return folder ? Find(*folder, module) : nullptr;
  }
  for (const std::string& root : _fRoots) {
    if (const Loc found = Find(root, module)) {
      return found;
    }
  }
  return folder && !module.empty() ? Find(PackageRoot(*folder), module) : nullptr;
}

DiskTime CFileImportResolver::GetDiskTime(Loc loc) const {
  const std::optional<std::string> path = PathForLocation(loc);
  return path ? GetFileDiskTime(*path) : DiskTime{scopeinfo::kFileUnknownOnDiskMtime};
}

void CFileImportResolver::SetRoots(std::vector<std::string> roots) {
  _fRoots = std::move(roots);
  Clear();
}

void CFileImportResolver::Clear() {
  for (CShard& shard : *_fShards) {
    const std::lock_guard lock(shard.mutex);
    shard.modules.clear();
    shard.package_roots.clear();
  }
}

Loc CFileImportResolver::Find(const std::string& folder, TextView name) const {
  std::string question = folder;
  question += '\0';
  question += name;
  CShard& shard = ShardOf(question);
  {
    const std::lock_guard lock(shard.mutex);
    const auto known = shard.modules.find(question);
    if (known != shard.modules.end()) {
      return known->second;
    }
  }
  // Unlocked: two threads may look for the same file, and find the same.
  const Loc found = FindOnDisk(folder, name);
  const std::lock_guard lock(shard.mutex);
  shard.modules.emplace(std::move(question), found);
  return found;
}

Loc CFileImportResolver::FindOnDisk(const std::string& folder, TextView name) const {
  std::string path = folder;
  while (!name.empty()) {
    const size_t dot = name.find('.');
    const TextView part = name.substr(0, dot);
    // Source can say anything: a name that is no file name must not lead out of the folder.
    if (part.empty() || part.find('/') != TextView::npos || part.find('\0') != TextView::npos) {
      return nullptr;
    }
    path += '/';
    path += part;
    name = dot == TextView::npos ? TextView() : name.substr(dot + 1);
    if (dot != TextView::npos && name.empty()) {
      return nullptr;
    }
  }
  for (const char* const extension : {".py", ".pyi"}) {
    // A module first, then a package; `folder` itself can only be a package.
    for (const bool is_package : {false, true}) {
      if (!is_package && path.size() == folder.size()) {
        continue;
      }
      const std::string file = path + (is_package ? "/__init__" : "") + extension;
      if (IsFile(file)) {
        return _fLocCache.GetLocationForPath(file);
      }
    }
  }
  return nullptr;
}

std::string CFileImportResolver::PackageRoot(const std::string& folder) const {
  CShard& shard = ShardOf(folder);
  {
    const std::lock_guard lock(shard.mutex);
    const auto known = shard.package_roots.find(folder);
    if (known != shard.package_roots.end()) {
      return known->second;
    }
  }
  std::string root = folder;
  while (IsPackage(root)) {
    std::optional<std::string> above = FolderAbove(root);
    if (!above) {
      break;
    }
    root = std::move(*above);
  }
  const std::lock_guard lock(shard.mutex);
  return shard.package_roots.emplace(folder, std::move(root)).first->second;
}

}  // namespace pysource::standalone
