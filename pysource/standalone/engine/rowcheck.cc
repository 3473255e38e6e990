#include "pysource/standalone/engine/rowcheck.h"

#include <unordered_map>
#include <utility>

#include "pysource/host/repr.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/scopeinfo/records/vocabulary.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"
#include "pysource/standalone/engine/filerows.h"
#include "pysource/standalone/files/disktimes.h"

namespace pysource::standalone {
namespace {

std::string PathOf(Loc loc) { return PathForLocation(loc).value_or(loc->fUrl); }

class CRowChecker {
 public:
  explicit CRowChecker(CSqliteAnalysisDb& db) : _fDb(db) {}

  CRowCheckReport Run() {
    for (const Text& fault : _fDb.Verify()) {
      _fReport.damaged.push_back({_fDb.Path(), fault});
    }
    std::vector<CStoredFile> files;
    _fDb.VisitFiles([&files](const CStoredFile& file) { files.push_back(file); });
    _fReport.files = files.size();
    for (const CStoredFile& file : files) {
      CheckTime(file);
    }
    _fDb.VisitAllRecords([this](const CStoredRow& row) { CheckRow(row); });
    for (const CStoredFile& file : files) {
      // With the claim, nobody would scan the file again.
      if (file.scans_done.find(kPrimaryScan.name) != Text::npos &&
          !_fWithModule.contains(file.loc)) {
        _fReport.damaged.push_back(
            {PathOf(file.loc), "claims to be scanned, without a record of its module"});
      }
    }
    return std::move(_fReport);
  }

 private:
  DiskTime TimeOf(Loc loc) {
    const auto [at, is_new] = _fTimes.try_emplace(loc, 0);
    if (is_new) {
      at->second = _fDiskTimes.TimeOf(loc);
    }
    return at->second;
  }

  void CheckTime(const CStoredFile& file) {
    const DiskTime now = TimeOf(file.loc);
    if (now == static_cast<DiskTime>(scopeinfo::kFileDoesNotExistMtime)) {
      _fReport.stale.push_back({PathOf(file.loc), "is gone"});
    } else if (now != file.disk_time) {
      _fReport.stale.push_back({PathOf(file.loc), "has changed since it was stored"});
    }
  }

  void CheckRow(const CStoredRow& row) {
    ++_fReport.records;
    _fReport.bytes += row.record.data.size();
    if (!row.error.empty()) {
      return;  // among the faults that the database has told of
    }
    const std::string path = PathOf(row.record.for_loc);
    const auto name = [&] {
      return "scope " + Repr(row.record.for_scope) + ", scan " +
             Repr(row.record.scan_name.value_or("")) + ": ";
    };
    if (ReadRow(_fSerializer, row.record, row.disk_time) == nullptr) {
      _fReport.damaged.push_back({path, name() + "its bytes cannot be decoded"});
      return;
    }
    if (row.record.scan_name == kPrimaryScan.name && IsTopLevelModuleScope(row.record.for_scope)) {
      _fWithModule.insert(row.record.for_loc);
    }
    if (row.record.scopes_seen == nullptr) {
      return;
    }
    for (const auto& [scope, time] : *row.record.scopes_seen) {
      // That its own file has changed is told once, for all of it.
      if (!(scope.loc == row.record.for_loc) && TimeOf(scope.loc) != time) {
        _fReport.stale.push_back(
            {path, name() + "rests on " + PathOf(scope.loc) + ", which has changed since"});
        return;
      }
    }
  }

  CSqliteAnalysisDb& _fDb;
  scopeinfo::CScopeInfoSerializer _fSerializer;
  CDiskTimes _fDiskTimes;                     // without a store: of a check, each file is read
  std::unordered_map<Loc, DiskTime> _fTimes;  // on the disk now
  CLocSet _fWithModule;                       // files with a primary record of their module
  CRowCheckReport _fReport;
};

}  // namespace

CRowCheckReport CheckRows(CSqliteAnalysisDb& db) { return CRowChecker(db).Run(); }

}  // namespace pysource::standalone
