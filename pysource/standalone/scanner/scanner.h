// Python source to records: what each scope of a file binds, and what its code sets elsewhere.
//
// One parse with tree-sitter, which understands half-typed code, and one visit give two scans of
// every scope of the file (the module, each class, function, lambda and comprehension):
//
// - kNamesScan, the primary scan: one record for the scope itself. type_equivs holds every name
//   bound or declared in it with its alternatives in source order, scope_ibytes what the scope is.
// - kAttrsScan, the secondary scan: records for other scopes and other files. From a method, the
//   attributes set on its first argument, as instance information of the class; from any scope, the
//   attributes set on an imported module, as information for that module's file. Often none.
//
// The vocabulary of scope names and info bytes is in pysource/host/symbolinfo.h; what the scanner
// says in it is told above the code, in scanner.cc.
//
// Nothing in the source makes a scan fail: any bytes give the records of what can be understood.
// Records are marked incomplete when the request says so, or when the parser could not come to an
// end with a hostile source in good time.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/text.h"
#include "pysource/scopeinfo/records/scopeinfo.h"
#include "pysource/standalone/scanner/importresolver.h"
#include "pysource/standalone/scanner/scans.h"

namespace pysource::standalone {

// Raise it whenever the scanner says anything else of some source: what another version has stored
// is then scanned again. A test over golden records fails where that was forgotten.
inline constexpr int kScannerVersion = 1;

struct CScanRequest {
  Loc loc;
  BytesView source;         // UTF-8; good for the time of the call
  DiskTime disk_mtime = 0;  // of the content that `source` is
  bool incomplete = false;  // the text of an unsaved buffer: its records are never written
};

// What one scan of one scope found, as CInfoCache::AddScopeInfoListForSingleScan takes it.
struct CScanResult {
  Text scanned_scope;
  Text scan_name;
  std::vector<scopeinfo::CScopeInfoPtr> infos;  // empty when the scan found nothing
};

struct CFileScan {
  // The module scope first, then the scopes in the order in which they begin; of each first
  // kNamesScan, then kAttrsScan.
  std::vector<CScanResult> results;
  size_t error_count = 0;       // places that the parser could not make sense of
  size_t first_error_line = 0;  // counted from 1; 0 when there is none
};

// One for each thread, used again and again: it keeps the parser and its scratch memory. The
// records are the caller's: each has memory of its own and moves to another thread as a whole.
class CScanner {
 public:
  // The resolver must outlive the scanner, and so must `stop`: a scan ends with a CValueError soon
  // after that is no longer 0.
  explicit CScanner(const CImportResolver& resolver, const std::atomic<size_t>* stop = nullptr);
  ~CScanner();
  CScanner(const CScanner&) = delete;
  CScanner& operator=(const CScanner&) = delete;

  // Runs both scans over one file, in time that is in proportion to the source, and with a memory
  // that does not grow with it beyond some 200 MB. Throws CValueError when the source is beyond what
  // the parser can count (kMostSourceBytes in sourcefile.h) or when it was stopped, otherwise
  // nothing of its own.
  CFileScan Scan(const CScanRequest& request);

 private:
  class CImpl;
  const std::unique_ptr<CImpl> _fImpl;
};

}  // namespace pysource::standalone
