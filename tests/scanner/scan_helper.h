// What the tests of the scanner share: a world without a file system, and scans as text.
#pragma once

#include <map>
#include <string>

#include "pysource/host/location.h"
#include "pysource/standalone/scanner/importresolver.h"
#include "pysource/standalone/scanner/scanner.h"

namespace pysource::standalone {

// Knows the modules that a test tells it, each as file "file:///<module>.py" of the same disk time.
class CFakeResolver : public CImportResolver {
 public:
  explicit CFakeResolver(CLocationCache& loc_cache) : _fLocCache(loc_cache) {}

  void Add(const Text& module) { _fModules[module] = _fLocCache.GetLocation(UrlOf(module)); }
  static Text UrlOf(const Text& module) { return "file:///" + module + ".py"; }

  Loc Resolve(Loc /*from*/, TextView module) const override {
    const auto found = _fModules.find(module);
    return found == _fModules.end() ? nullptr : found->second;
  }
  DiskTime GetDiskTime(Loc /*loc*/) const override { return 50.0; }

 private:
  CLocationCache& _fLocCache;
  std::map<Text, Loc, std::less<>> _fModules;
};

struct CScanWorld {
  CLocationCache loc_cache;
  CFakeResolver resolver{loc_cache};
  CScanner scanner{resolver};
  Loc loc = loc_cache.GetLocation("file:///t.py");

  CFileScan Scan(BytesView source, bool incomplete = false) {
    return scanner.Scan({loc, source, 100.0, incomplete});
  }
};

// One line for each record ("<scope> names <ibytes>", "<scope> attrs > <file or scope>"), below it
// one for each name, instance attribute ("@"), domain ("=") and further scope seen ("seen").
// Records without any of these and scans without records are left out.
Text Dump(const CFileScan& scan, Loc loc);

}  // namespace pysource::standalone
