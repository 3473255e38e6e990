// What must hold for any sources that one scanner scans one after the other. The fuzz target calls
// this with the fuzzer's input, a test with random texts among valid files.
#pragma once

#include <vector>

#include "fuzz/fuzz_bodies.h"
#include "pysource/standalone/scanner/scanner.h"

namespace pysource::standalone::fuzz {

// A resolver for which no module has a file.
class CNoModules final : public CImportResolver {
 public:
  Loc Resolve(Loc /*from*/, TextView /*module*/) const override { return nullptr; }
  DiskTime GetDiskTime(Loc /*loc*/) const override { return 0; }
};

// The whole result of a scan, as bytes. Throws CBrokenProperty when the encoded form of a record
// does not decode to the same content.
inline Bytes Written(const CFileScan& scan) {
  static scopeinfo::CScopeInfoSerializer serializer;
  Bytes all = std::to_string(scan.error_count) + " " + std::to_string(scan.first_error_line);
  for (const CScanResult& result : scan.results) {
    all += "\n" + result.scanned_scope + Text(result.scan_name);
    for (const scopeinfo::CScopeInfoPtr& info : result.infos) {
      const Bytes message = serializer.WriteScopeInfo(*info);
      const auto again = serializer.ReadScopeInfo(info->key, info->disk_mtime, false, message);
      scopeinfo::fuzz::Require(again != nullptr && scopeinfo::fuzz::SameContent(*info, *again),
                               "a record is not what was written");
      all += "\n" + info->key.Repr() + (info->incomplete ? " incomplete " : " ") + message;
    }
  }
  return all;
}

// Requires that the scanner gives the same result for each source as a new scanner.
inline void CheckSources(const std::vector<BytesView>& sources, bool incomplete) {
  static CLocationCache locations;
  static const CNoModules no_modules;
  CScanner used(no_modules);
  for (const BytesView source : sources) {
    const CScanRequest request{locations.GetLocation("file:///fuzz.py"), source, 2.0, incomplete};
    scopeinfo::fuzz::Require(
        Written(used.Scan(request)) == Written(CScanner(no_modules).Scan(request)),
        "what was scanned before shows in a scan");
  }
}

}  // namespace pysource::standalone::fuzz
