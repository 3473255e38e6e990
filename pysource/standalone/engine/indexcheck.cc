#include "pysource/standalone/engine/indexcheck.h"

#include <algorithm>
#include <map>
#include <optional>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "pysource/host/repr.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/scopeinfo/records/scopeinfo.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"
#include "pysource/standalone/engine/filerows.h"
#include "pysource/standalone/engine/scanfiles.h"
#include "pysource/standalone/files/contenttime.h"
#include "pysource/standalone/scanner/importresolver.h"

namespace pysource::standalone {
namespace {

using scopeinfo::CScopeInfo;
using scopeinfo::CScopeInfoKey;
using scopeinfo::CScopeInfoPtr;

// A record that a scan found, and the row that it makes.
struct CExpected {
  CScopeInfoPtr info;
  CDatabaseRecord row;
};
using CExpectedByKey = std::unordered_map<CScopeInfoKey, CExpected>;

// The database keeps one time a file.
std::optional<std::map<Text, DiskTime>> SeenFiles(const CScopesSeenPtr& seen) {
  if (seen == nullptr) {
    return std::nullopt;
  }
  std::map<Text, DiskTime> files;
  for (const auto& [ref, time] : *seen) {
    files[ref.loc->fUrl] = time;
  }
  return files;
}

bool SameKeys(const std::map<Text, DiskTime>& a, const std::map<Text, DiskTime>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](const auto& x, const auto& y) { return x.first == y.first; });
}

class CChecker {
 public:
  CChecker(CAnalysisDb& db, const CCheckRequest& request) : _fDb(db), _fRequest(request) {
    for (const CFoundFile& file : request.found.files) {
      _fChecked.insert(file.loc);
    }
  }

  CCheckReport Run(CLocationCache& loc_cache) {
    const std::vector<CFoundFile>& files = _fRequest.found.files;
    CDiskTimes times;
    const CFileImportResolver resolver(loc_cache, times, _fRequest.found.roots);
    size_t done = 0;
    ScanFiles({files, _fRequest.jobs, times, resolver, _fRequest.is_cancelled},
              [&](const CScanJobResult& scanned) {
                const std::string path = PathForLocation(scanned.job.loc).value_or("");
                CheckFile(path, scanned);
                ++done;
                if (_fRequest.on_progress != nullptr) {
                  _fRequest.on_progress(done, files.size(), path);
                }
                return true;
              });
    _fReport.cancelled = done < files.size();
    if (!_fReport.cancelled) {
      CheckRowsForOthers();
    }
    return std::move(_fReport);
  }

 private:
  void CheckFile(const std::string& path, const CScanJobResult& scanned) {
    const Loc loc = scanned.job.loc;
    if (!scanned.error.empty()) {
      _fReport.unreadable.push_back({path, scanned.error});
      _fChecked.erase(loc);
      return;
    }
    CExpectedByKey own;
    for (const CScanResult& result : scanned.scan.results) {
      for (const CScopeInfoPtr& info : result.infos) {
        CExpectedByKey& expected = info->loc == loc ? own : _fForOthers[info->loc];
        if (!expected.emplace(info->key, CExpected{info, MakeRow(*info)}).second) {
          Differ(path, info->key, "was found twice by one scan");
        }
      }
    }
    if (!IsIndexed(loc, scanned.disk_mtime)) {
      _fReport.not_indexed.push_back({path, "not indexed, or changed since"});
      return;
    }
    ++_fReport.files;
    for (CDatabaseRecord& row : ReadRows(loc, scanned.disk_mtime)) {
      if (row.scanned_loc == loc) {
        CheckRow(path, row, scanned.disk_mtime, own);
      } else {
        _fRowsFromOthers[loc].emplace_back(std::move(row), scanned.disk_mtime);
      }
    }
    ReportMissing(path, own);
  }

  // The rows of each file that other files made, when all scans are done.
  void CheckRowsForOthers() {
    for (auto& [loc, expected] : _fForOthers) {
      const auto path = PathForLocation(loc);
      if (path && !_fChecked.contains(loc)) {
        const DiskTime time = GetFileDiskTime(*path);
        for (CDatabaseRecord& row : ReadRows(loc, time)) {
          if (row.scanned_loc != loc) {
            _fRowsFromOthers[loc].emplace_back(std::move(row), time);
          }
        }
      }
    }
    for (const auto& [loc, rows] : _fRowsFromOthers) {
      const std::string path = PathForLocation(loc).value_or(loc->fUrl);
      for (const auto& [row, time] : rows) {
        if (_fChecked.contains(row.scanned_loc)) {
          CheckRow(path, row, time, _fForOthers[loc]);
        } else {
          ++_fReport.from_elsewhere;
        }
      }
    }
    for (const auto& [loc, expected] : _fForOthers) {
      ReportMissing(PathForLocation(loc).value_or(loc->fUrl), expected);
    }
  }

  // Compares the row with what was expected under its key, and crosses that off.
  void CheckRow(const std::string& path, const CDatabaseRecord& row, DiskTime disk_mtime,
                CExpectedByKey& expected_by_key) {
    ++_fReport.records;
    _fReport.bytes += row.data.size();
    const CScopeInfoPtr info = ReadRow(_fSerializer, row, disk_mtime);
    if (info == nullptr) {
      _fReport.differences.push_back(
          {path, "scope " + Repr(row.for_scope) + ": its bytes cannot be decoded"});
      return;
    }
    const auto found = expected_by_key.find(info->key);
    if (found == expected_by_key.end()) {
      Differ(path, info->key, "is stored, but no scan finds it");
      return;
    }
    const CExpected expected = std::move(found->second);
    expected_by_key.erase(found);
    if (row.data != expected.row.data) {
      Differ(path, info->key, "differs in its bytes");
    } else if (!SameContent(*info, *expected.info)) {
      Differ(path, info->key, "differs when decoded");
    } else if (row.class_equivs != expected.row.class_equivs ||
               row.import_equivs != expected.row.import_equivs) {
      Differ(path, info->key, "differs in its classes or imports");
    } else {
      const auto seen = SeenFiles(row.scopes_seen);
      const auto seen_now = SeenFiles(expected.row.scopes_seen);
      if (seen.has_value() != seen_now.has_value() || (seen && !SameKeys(*seen, *seen_now))) {
        Differ(path, info->key, "differs in the files seen");
        return;
      }
      ++_fReport.equal;
      _fReport.resting_on_changed += seen == seen_now ? 0 : 1;
    }
  }

  void ReportMissing(const std::string& path, const CExpectedByKey& expected) {
    for (const auto& [key, unused] : expected) {
      Differ(path, key, "was found by a scan, but is not stored");
    }
  }

  void Differ(const std::string& path, const CScopeInfoKey& key, const char* how) {
    _fReport.differences.push_back({path, key.Repr() + " " + how});
  }

  bool IsIndexed(Loc loc, DiskTime disk_mtime) {
    CLocMtimeDict time;
    time.Set(loc, disk_mtime);
    const CScansDoneDict scans_done = _fDb.GetScansDone(time);
    const Text* done = scans_done.Find(loc);
    return done != nullptr && *done == AllScansDone();
  }

  std::vector<CDatabaseRecord> ReadRows(Loc loc, DiskTime disk_mtime) {
    return _fDb.ReadScopeDataRecords(loc, ScanNames(), {Text(kWildcardScope)}, disk_mtime);
  }

  CAnalysisDb& _fDb;
  const CCheckRequest& _fRequest;
  scopeinfo::CScopeInfoSerializer _fSerializer;
  CLocSet _fChecked;  // the files that are scanned
  std::unordered_map<Loc, CExpectedByKey> _fForOthers;
  std::unordered_map<Loc, std::vector<std::pair<CDatabaseRecord, DiskTime>>> _fRowsFromOthers;
  CCheckReport _fReport;
};

}  // namespace

CCheckReport CheckIndex(CAnalysisDb& db, CLocationCache& loc_cache, const CCheckRequest& request) {
  return CChecker(db, request).Run(loc_cache);
}

}  // namespace pysource::standalone
