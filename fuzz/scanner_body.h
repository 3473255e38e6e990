// What must hold of any sources that one scanner is given, one after the other. The fuzz target
// calls this with what the fuzzer makes up, a test with random texts among valid files.
#pragma once

#include <vector>

#include "fuzz/fuzz_bodies.h"
#include "pysource/standalone/scanner/scanner.h"

namespace pysource::standalone::fuzz {

// No module has a file.
class CNoModules final : public CImportResolver {
 public:
  Loc Resolve(Loc /*from*/, TextView /*module*/) const override { return nullptr; }
  DiskTime GetDiskTime(Loc /*loc*/) const override { return 0; }
};

// All that a scan says, as bytes. Throws CBrokenProperty when a record is not what its encoded form
// decodes to.
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

// Each source gives what a scanner gives that has seen nothing else.
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
