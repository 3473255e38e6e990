// Locations: which file a piece of information is about.
//
// A CResourceLocation is immutable except for fInspectTime, and is interned: CLocationCache makes
// one object for each URL and keeps it as long as the cache exists. Everything else passes `Loc`, a
// handle of one pointer. Two handles are equal when they point to the same object, or to objects
// with the same URL; equal but distinct objects occur in tests.
#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "pysource/host/text.h"

namespace pysource {

// One file or other resource. A host can derive from it, for a virtual file system or to mark
// locations that it inspects in the background.
class CResourceLocation {
 public:
  explicit CResourceLocation(Text url);
  virtual ~CResourceLocation();
  CResourceLocation(const CResourceLocation&) = delete;
  CResourceLocation& operator=(const CResourceLocation&) = delete;

  // Whether the resource exists now. The default asks the file system for "file://" URLs and
  // returns false for all others.
  virtual bool DoesResourceExist() const;

  // True for a location that is inspected in the background; until that is done, fInspectTime is 0.
  virtual bool IsAsyncInspected() const { return false; }

  size_t Hash() const noexcept { return _fHash; }
  Text Repr() const;

  // The URL. For a file it is "file://" and the absolute path, byte for byte, without escapes.
  const Text fUrl;

  // When a location that is inspected in the background was last inspected; 0 until then.
  mutable double fInspectTime = 0;

 private:
  const size_t _fHash;
};

// The handle of a location. A default-constructed one is absent. It does not own the object.
// REQUIRES: the location cache outlives all handles.
class Loc {
 public:
  constexpr Loc() noexcept = default;
  constexpr Loc(std::nullptr_t) noexcept {}
  constexpr Loc(const CResourceLocation* location) noexcept : _fLocation(location) {}

  constexpr explicit operator bool() const noexcept { return _fLocation != nullptr; }
  const CResourceLocation* operator->() const noexcept { return _fLocation; }
  const CResourceLocation& operator*() const noexcept { return *_fLocation; }
  constexpr const CResourceLocation* get() const noexcept { return _fLocation; }

  size_t Hash() const noexcept { return _fLocation ? _fLocation->Hash() : 0; }
  // "None" when absent.
  Text Repr() const;

  friend bool operator==(Loc a, Loc b) noexcept {
    return a._fLocation == b._fLocation || (a && b && SameUrl(*a, *b));
  }
  // The order of the URLs. Throws CTypeError when either is absent.
  friend bool operator<(Loc a, Loc b);

 private:
  static bool SameUrl(const CResourceLocation& a, const CResourceLocation& b) noexcept {
    return a.Hash() == b.Hash() && a.fUrl == b.fUrl;
  }
  const CResourceLocation* _fLocation = nullptr;
};

// Whether the location is inspected in the background, and so may not have been inspected yet.
bool IsAsyncInspectLocation(Loc loc);

// The path of a "file://" location; absent for any other.
std::optional<std::string> PathForLocation(Loc loc);

// The URL of the file at `path`. Makes the path absolute against the working folder and normalises
// it: resolves "." and ".." by name and follows no symbolic links.
Text UrlForPath(const std::string& path);

// Interns locations. Safe to use from several threads: scanners in worker threads intern the files
// that imports resolve to.
class CLocationCache {
 public:
  CLocationCache();
  virtual ~CLocationCache();
  CLocationCache(const CLocationCache&) = delete;
  CLocationCache& operator=(const CLocationCache&) = delete;

  // The one location of `url`, made on first use. Valid as long as this cache.
  Loc GetLocation(TextView url);
  Loc GetLocationForPath(const std::string& path);

  // The location of the built-in names, made on first use.
  Loc GetBuiltinLoc();

  size_t Size() const;
  size_t MemoryUse() const;

 protected:
  // Makes the object for a new URL. A host overrides it to use its own class.
  virtual std::unique_ptr<CResourceLocation> MakeLocation(TextView url) const;

 private:
  mutable std::mutex _fMutex;
  // Keyed by a view of the location's own URL.
  std::unordered_map<TextView, std::unique_ptr<CResourceLocation>, TextHash, std::equal_to<>>
      _fLocations;
};

}  // namespace pysource

template <>
struct std::hash<pysource::Loc> {
  size_t operator()(pysource::Loc loc) const noexcept { return loc.Hash(); }
};
