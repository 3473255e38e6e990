#include "pysource/standalone/engine/indexplan.h"

#include <algorithm>
#include <string>
#include <unordered_map>
#include <utility>

#include "pysource/scopeinfo/records/vocabulary.h"
#include "pysource/standalone/engine/filerows.h"
#include "pysource/standalone/scanner/sourcefile.h"

namespace pysource::standalone {
namespace {

constexpr auto kGone = static_cast<DiskTime>(scopeinfo::kFileDoesNotExistMtime);

bool IsBelow(const std::string& path, const std::vector<std::string>& folders) {
  return std::any_of(folders.begin(), folders.end(), [&path](const std::string& folder) {
    return path.starts_with(folder) &&
           (path.size() == folder.size() || folder.ends_with('/') || path[folder.size()] == '/');
  });
}

class CPlanner {
 public:
  CPlanner(CSqliteAnalysisDb& db, const CFoundFiles& found) : _fDb(db), _fFound(found) {
    for (const CFoundFile& file : found.files) {
      _fTimes.emplace(file.loc, file.disk_mtime);
      _fFoundLocs.insert(file.loc);
    }
    _fDb.VisitFiles([this](const CStoredFile& file) { _fStored.emplace(file.loc, file); });
  }

  CIndexPlan Make() {
    for (const CFoundFile& file : _fFound.files) {
      if (IsIndexed(file.loc)) {
        ++_fPlan.unchanged;
      } else {
        _fChanged.insert(file.loc);
        _fPlan.to_scan.push_back(file);
      }
    }
    for (const auto& [loc, unused] : _fStored) {
      const auto path = PathForLocation(loc);
      if (path && !_fFoundLocs.contains(loc) && IsBelow(*path, _fFound.paths) &&
          TimeOf(loc) == kGone) {
        ++_fPlan.removed;
        _fChanged.insert(loc);
        _fPlan.to_clear.push_back(loc);
      }
    }
    for (const Loc loc : _fDb.LostSources()) {
      _fAgain.insert(loc);
    }
    ReadTies();
    FollowTies();
    AddFilesToScanAgain();
    std::sort(_fPlan.to_clear.begin(), _fPlan.to_clear.end());
    return std::move(_fPlan);
  }

 private:
  // The present time of the file; asked of the disk once.
  DiskTime TimeOf(Loc loc) {
    const auto known = _fTimes.find(loc);
    if (known != _fTimes.end()) {
      return known->second;
    }
    const auto path = PathForLocation(loc);
    return _fTimes.emplace(loc, path ? GetFileDiskTime(*path) : kGone).first->second;
  }

  // Whether it is stored as it is on the disk now, with both scans.
  bool IsIndexed(Loc loc) {
    const auto stored = _fStored.find(loc);
    return stored != _fStored.end() && stored->second.scans_done == kAllScansDone &&
           stored->second.disk_time == TimeOf(loc);
  }

  void ReadTies() {
    _fDb.VisitTiedRecords([this](const CStoredRow& row) {
      const Loc loc = row.record.for_loc;
      const Loc source = row.record.scanned_loc;
      if (!loc || !source) {
        return;
      }
      bool is_stale = row.record.scopes_seen == nullptr;
      if (row.record.scopes_seen != nullptr) {
        for (const auto& [scope, time] : *row.record.scopes_seen) {
          is_stale = is_stale || TimeOf(scope.loc) != time;
        }
      }
      if (source != loc) {
        _fSources[loc].insert(source);
        if (is_stale) {
          _fMisinformed.insert(loc);
        }
      } else if (is_stale) {
        _fAgain.insert(loc);
      }
    });
  }

  void FollowTies() {
    for (const auto& [loc, sources] : _fSources) {
      const bool is_misinformed = _fMisinformed.contains(loc) ||
                                  std::any_of(sources.begin(), sources.end(), [this](Loc source) {
                                    return _fChanged.contains(source) || TimeOf(source) == kGone;
                                  });
      if (is_misinformed) {
        // Also of a file that is scanned anyway: if it is there at its old time, after a run that
        // was cut short, saving it keeps the rows of others.
        _fPlan.to_clear.push_back(loc);
        _fAgain.insert(loc);
      }
      if (is_misinformed || _fChanged.contains(loc)) {
        _fAgain.insert(sources.begin(), sources.end());
      }
    }
  }

  void AddFilesToScanAgain() {
    for (const Loc loc : _fAgain) {
      if (!_fChanged.contains(loc) && IsIndexed(loc)) {
        _fPlan.to_forget.push_back({*PathForLocation(loc), loc, TimeOf(loc)});
      }
    }
    std::sort(_fPlan.to_forget.begin(), _fPlan.to_forget.end(),
              [](const CFoundFile& a, const CFoundFile& b) { return a.path < b.path; });
    for (const CFoundFile& file : _fPlan.to_forget) {
      _fPlan.unchanged -= _fFoundLocs.contains(file.loc) ? 1 : 0;
      _fPlan.to_scan.push_back(file);
    }
  }

  CSqliteAnalysisDb& _fDb;
  const CFoundFiles& _fFound;
  CIndexPlan _fPlan;

  CLocSet _fFoundLocs;
  std::unordered_map<Loc, DiskTime> _fTimes;  // on the disk now
  std::unordered_map<Loc, CStoredFile> _fStored;
  CLocSet _fChanged;                           // new, changed or removed
  std::unordered_map<Loc, CLocSet> _fSources;  // B to the files A that have rows in it
  CLocSet _fMisinformed;                       // B with such a row that is no longer true
  CLocSet _fAgain;
};

}  // namespace

CIndexPlan MakeIndexPlan(CSqliteAnalysisDb& db, const CFoundFiles& found) {
  return CPlanner(db, found).Make();
}

}  // namespace pysource::standalone
