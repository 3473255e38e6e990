#include "pysource/standalone/engine/indexer.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "pysource/scopeinfo/infocache/infocache.h"

namespace pysource::standalone {
namespace {

// A disk that is full stays so, and each save that meets a lock waits for it: after this many
// refusals in a row the rest of a big tree is not tried any more.
constexpr size_t kMostFailuresInARow = 3;

// After so many files, those that could not leave memory at once are tried again.
constexpr size_t kFilesBetweenSweeps = 256;

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

std::vector<CPathNote> ForgetForPlan(CEngine& engine, const CIndexPlan& plan) {
  scopeinfo::CInfoCache& cache = engine.Cache();
  std::vector<CPathNote> refused;
  // First that their scans are done no longer: once the rows are cleared, nothing else says who has
  // to be scanned again.
  std::vector<Loc> to_forget;
  for (const CFoundFile& file : plan.to_forget) {
    (void)cache.GetAllScopeNames(file.loc);  // makes the entry
    if (cache.ForgetScansDone(file.loc)) {
      to_forget.push_back(file.loc);
    }
  }
  cache.WriteToDatabase(to_forget);
  for (const Loc loc : to_forget) {
    const auto file = cache.GetFileHeld(loc);
    const std::string& why = engine.Database().RefusalOf(loc);
    if (file && file->are_scans_done_unwritten && !why.empty()) {
      refused.push_back({PathOf(loc), why});
      return refused;
    }
  }
  if (!plan.to_clear.empty()) {
    cache.ClearFiles(plan.to_clear, true);
    for (const Loc loc : plan.to_clear) {
      const auto file = cache.GetFileHeld(loc);
      if (file && file->is_deletion_unwritten) {
        refused.push_back({PathOf(loc), engine.Database().RefusalOf(loc)});
        return refused;
      }
    }
  }
  return refused;
}

CIndexReport CIndexer::Run(const CIndexRequest& request) {
  _fReport = {};
  _fStored.clear();
  _fDone = 0;
  _fFailuresInARow = 0;

  CIndexPlan plan;
  {
    const CStopwatch stopwatch(_fReport.plan_seconds);
    _fEngine.Database().EnsureSound();
    plan = MakeIndexPlan(_fEngine.Database(), _fEngine.DiskTimes(), request.found);
    _fReport.not_stored = ForgetForPlan(_fEngine, plan);
  }
  _fReport.unchanged = plan.unchanged;
  _fReport.removed = plan.removed;
  if (!_fReport.not_stored.empty()) {
    return std::move(_fReport);
  }

  CScanRunner& scans = _fEngine.Scans();
  {
    const CStopwatch stopwatch(_fReport.scan_seconds);
    const auto progress = [&](const std::string& path) {
      if (request.on_progress != nullptr) {
        request.on_progress(std::min(_fDone, plan.to_scan.size()), plan.to_scan.size(), path);
      }
    };
    progress("");
    scans.fOnScanned = [&](const CScanJobResult& scanned) {
      TakeScanned(scanned);
      progress(PathOf(scanned.job.loc));
    };
    scans.fOnFailure = [&](const CScanRunner::Failure& failure) {
      TakeFailure(failure);
      progress(PathOf(failure.loc));
    };
    for (const CFoundFile& file : plan.to_scan) {
      scans.RequestFile(file.loc);
    }
    const bool all = _fEngine.RunScans(
        [&] { return !HasGivenUp() && (request.between == nullptr || request.between()); });
    scans.fOnScanned = nullptr;
    scans.fOnFailure = nullptr;
    _fReport.cancelled = !all && !HasGivenUp();
    WriteTheRest();
  }
  _fReport.store_seconds = scans.GetCounts().hand_over_seconds;
  _fReport.worker_times = scans.WorkTimes();
  _fReport.scanned_again = static_cast<size_t>(
      std::count_if(plan.to_forget.begin(), plan.to_forget.end(),
                    [this](const CFoundFile& file) { return _fStored.contains(file.loc); }));

  const auto by_path = [](const auto& a, const auto& b) { return a.path < b.path; };
  std::sort(_fReport.unreadable.begin(), _fReport.unreadable.end(), by_path);
  std::sort(_fReport.syntax_errors.begin(), _fReport.syntax_errors.end(), by_path);
  return std::move(_fReport);
}

void CIndexer::TakeScanned(const CScanJobResult& scanned) {
  const Loc loc = scanned.job.loc;
  scopeinfo::CInfoCache& cache = _fEngine.Cache();
  ++_fDone;
  if (IsRefused(loc)) {
    Refuse(PathOf(loc), _fEngine.Database().RefusalOf(loc));
  } else {
    _fFailuresInARow = 0;
    // A file that changes while the run goes on is scanned more than once.
    if (_fStored.insert(loc).second) {
      ++_fReport.scanned;
      _fReport.source_bytes += scanned.source_bytes;
      _fReport.encoded_bytes += scanned.encoded_bytes;
      for (const CScanResult& result : scanned.scan.results) {
        _fReport.scopes += result.scan_name == kPrimaryScan.name ? 1 : 0;
        for (const scopeinfo::CScopeInfoPtr& info : result.infos) {
          ++_fReport.records;
          _fReport.names += info->type_equivs.size();
          _fReport.names += info->inst_type_equivs ? info->inst_type_equivs->size() : 0;
        }
      }
      if (scanned.scan.error_count > 0) {
        _fReport.syntax_errors.push_back(
            {PathOf(loc), scanned.scan.error_count, scanned.scan.first_error_line});
      }
    }
  }
  // Also what was refused: the next run makes up for it.
  if (cache.IsSettled(loc) || cache.GetUnwrittenCount(loc) != 0) {
    cache.ClearFiles({loc}, false);
  }
  if (_fDone % kFilesBetweenSweeps == 0) {
    Sweep();
  }
}

void CIndexer::TakeFailure(const CScanRunner::Failure& failure) {
  ++_fDone;
  if (failure.was_scanned) {
    Refuse(PathOf(failure.loc), failure.message);
  } else {
    _fReport.unreadable.push_back({PathOf(failure.loc), failure.message});
  }
}

void CIndexer::Refuse(const std::string& path, const std::string& why) {
  if (!HasGivenUp()) {
    _fReport.not_stored.push_back({path, why});
  }
  ++_fFailuresInARow;
}

// Whether the database would not take records of the file.
bool CIndexer::IsRefused(Loc loc) const {
  return !_fEngine.Database().RefusalOf(loc).empty() &&
         _fEngine.Cache().GetUnwrittenCount(loc) != 0;
}

void CIndexer::Sweep() {
  _fEngine.DiskTimes().Save();
  scopeinfo::CInfoCache& cache = _fEngine.Cache();
  std::vector<Loc> settled;
  const std::vector<Loc> held = cache.GetFilesHeld();
  std::copy_if(held.begin(), held.end(), std::back_inserter(settled),
               [&cache](Loc loc) { return cache.IsSettled(loc); });
  const bool all = settled.size() == held.size();
  cache.ClearFiles(settled, false);
  if (all) {
    // The cache remembers of every record that it ever held that nothing depends on it any more.
    cache.Clear();
  }
}

// Records for files that are not scanned in this run, or were made stale and made again.
void CIndexer::WriteTheRest() {
  if (HasGivenUp()) {
    return;
  }
  scopeinfo::CInfoCache& cache = _fEngine.Cache();
  cache.WriteToDatabase();
  for (const Loc loc : cache.GetFilesHeld()) {
    // Records for a file that is gone by now have nowhere to go.
    if (cache.GetFileHeld(loc)->disk_mtime > 0 && IsRefused(loc)) {
      Refuse(PathOf(loc), _fEngine.Database().RefusalOf(loc));
    }
  }
}

bool CIndexer::HasGivenUp() const { return _fFailuresInARow >= kMostFailuresInARow; }

}  // namespace pysource::standalone
