#include "pysource/standalone/engine/indexer.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "pysource/scopeinfo/records/vocabulary.h"
#include "pysource/standalone/engine/scanfiles.h"
#include "pysource/standalone/scanner/importresolver.h"
#include "pysource/standalone/scanner/sourcefile.h"

namespace pysource::standalone {
namespace {

// A disk that is full stays so, and each save that meets a lock waits for it: after this many
// refusals in a row the rest of a big tree is not tried any more.
constexpr size_t kMostFailuresInARow = 3;

class CStopwatch {
 public:
  explicit CStopwatch(double& seconds) : _fSeconds(seconds) {}
  ~CStopwatch() {
    _fSeconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - _fStart).count();
  }
  CStopwatch(const CStopwatch&) = delete;
  CStopwatch& operator=(const CStopwatch&) = delete;

 private:
  double& _fSeconds;
  const std::chrono::steady_clock::time_point _fStart = std::chrono::steady_clock::now();
};

std::string PathOf(Loc loc) { return PathForLocation(loc).value_or(loc->fUrl); }

}  // namespace

CIndexReport CIndexer::Run(const CIndexRequest& request) {
  _fReport = {};
  _fForOthers.clear();
  _fStored.clear();
  _fFailuresInARow = 0;

  CIndexPlan plan;
  {
    const CStopwatch stopwatch(_fReport.plan_seconds);
    plan = MakeIndexPlan(_fDb, request.found);
    Prepare(plan);
  }
  _fReport.unchanged = plan.unchanged;
  _fReport.removed = plan.removed;

  {
    const CStopwatch stopwatch(_fReport.scan_seconds);
    const CFileImportResolver resolver(_fLocCache, request.found.roots);
    size_t done = 0;
    const auto progress = [&](const std::string& path) {
      if (request.on_progress != nullptr) {
        request.on_progress(done, plan.to_scan.size(), path);
      }
    };
    progress("");
    _fReport.worker_times = ScanFiles({plan.to_scan, request.jobs, resolver, request.is_cancelled},
                                      [&](const CScanJobResult& scanned) {
                                        StoreFile(scanned);
                                        ++done;
                                        progress(PathOf(scanned.job.loc));
                                        return !HasGivenUp();
                                      });
    _fReport.cancelled = done < plan.to_scan.size() && !HasGivenUp();
    StoreRowsForOthers();
  }
  _fReport.scanned_again = static_cast<size_t>(
      std::count_if(plan.to_forget.begin(), plan.to_forget.end(),
                    [this](const CFoundFile& file) { return _fStored.contains(file.loc); }));

  const auto by_path = [](const auto& a, const auto& b) { return a.path < b.path; };
  std::sort(_fReport.unreadable.begin(), _fReport.unreadable.end(), by_path);
  std::sort(_fReport.syntax_errors.begin(), _fReport.syntax_errors.end(), by_path);
  return std::move(_fReport);
}

// Forgets first what will be scanned again: if this run is cut short after the clearing, the next
// one sees that these files have to be scanned.
void CIndexer::Prepare(const CIndexPlan& plan) {
  for (const CFoundFile& file : plan.to_forget) {
    Save(file.loc, {}, "", file.disk_mtime);
  }
  if (!plan.to_clear.empty() && !HasGivenUp() && !_fDb.ClearInfoForFiles(plan.to_clear)) {
    _fReport.not_stored.push_back({PathOf(plan.to_clear.front()), _fDb.LastError()});
  }
}

void CIndexer::StoreFile(const CScanJobResult& scanned) {
  const Loc loc = scanned.job.loc;
  if (!scanned.error.empty()) {
    _fReport.unreadable.push_back({PathOf(loc), scanned.error});
    return;
  }
  const CFileRows rows = MakeRows(loc, scanned.scan, _fForOthers);
  const size_t refused = _fReport.not_stored.size();
  Save(loc, rows.rows, kAllScansDone, scanned.disk_mtime);
  if (_fReport.not_stored.size() > refused) {
    return;
  }
  _fStored[loc] = scanned.disk_mtime;
  ++_fReport.scanned;
  _fReport.scopes += rows.scopes;
  _fReport.names += rows.names;
  _fReport.records += rows.records;
  _fReport.encoded_bytes += rows.encoded_bytes;
  _fReport.source_bytes += scanned.source_bytes;
  if (scanned.scan.error_count > 0) {
    _fReport.syntax_errors.push_back(
        {PathOf(loc), scanned.scan.error_count, scanned.scan.first_error_line});
  }
}

// After all rows of the files themselves, since saving a file under a new time drops what was there
// before. A file that is not indexed gets its rows all the same: when it is, they are kept.
void CIndexer::StoreRowsForOthers() {
  CLocMtimeDict times;
  for (const auto& [loc, rows] : _fForOthers) {
    const auto stored = _fStored.find(loc);
    const auto path = PathForLocation(loc);
    const DiskTime time = stored != _fStored.end() ? stored->second
                          : path                   ? GetFileDiskTime(*path)
                                                   : scopeinfo::kFileUnknownOnDiskMtime;
    // A file that is gone by now has no rows.
    if (time > static_cast<DiskTime>(scopeinfo::kFileUnknownOnDiskMtime)) {
      times.Set(loc, time);
    }
  }
  const CScansDoneDict scans_done = times.empty() ? CScansDoneDict() : _fDb.GetScansDone(times);
  for (const auto& [loc, time] : times) {
    if (HasGivenUp()) {
      return;
    }
    const Text* done = scans_done.Find(loc);
    Save(loc, _fForOthers[loc], done != nullptr ? TextView(*done) : TextView(), time);
  }
}

void CIndexer::Save(Loc loc, const std::vector<CDatabaseRecord>& rows, TextView scans_done,
                    DiskTime disk_mtime) {
  const CStopwatch stopwatch(_fReport.store_seconds);
  if (!HasGivenUp() && !_fDb.SaveDataForFile(loc, rows, scans_done, disk_mtime)) {
    _fReport.not_stored.push_back({PathOf(loc), _fDb.LastError()});
    ++_fFailuresInARow;
    return;
  }
  _fFailuresInARow = HasGivenUp() ? _fFailuresInARow : 0;
}

bool CIndexer::HasGivenUp() const { return _fFailuresInARow >= kMostFailuresInARow; }

}  // namespace pysource::standalone
