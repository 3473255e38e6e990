#include "pysource/standalone/engine/indexplan.h"

#include <algorithm>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "pysource/scopeinfo/records/vocabulary.h"
#include "pysource/standalone/engine/filerows.h"

namespace pysource::standalone {
namespace {

constexpr auto kGone = static_cast<DiskTime>(scopeinfo::kFileDoesNotExistMtime);

bool IsBelow(const std::string& path, const std::vector<std::string>& folders) {
  return std::any_of(folders.begin(), folders.end(), [&path](const std::string& folder) {
    return path.starts_with(folder) &&
           (path.size() == folder.size() || folder.ends_with('/') || path[folder.size()] == '/');
  });
}

// What is known of one file.
struct CFileState {
  const CFoundFile* found = nullptr;  // in the tree
  std::optional<CContentMark> content;
  std::optional<DiskTime> now;  // its time on the disk, once that was asked for
  bool is_stored = false;
  bool is_scanned = false;  // all scans are stored
  DiskTime stored = 0;      // as it was at that time
};

class CPlanner {
 public:
  CPlanner(CSqliteAnalysisDb& db, CDiskTimes& times, const CFoundFiles& found)
      : _fDb(db), _fTimes(times), _fFound(found) {
    _fStates.reserve(found.files.size() * 2);
    _fStatesOfFound.reserve(found.files.size());
    for (const CFoundFile& file : found.files) {
      CFileState& state = _fStates[file.loc];
      state.found = &file;
      _fStatesOfFound.push_back(&state);
    }
    _fDb.VisitFilesAndTies(
        [this](const CStoredFile& file) {
          CFileState& state = _fStates[file.loc];
          state.is_stored = true;
          state.is_scanned = file.scans_done == AllScansDone();
          state.stored = file.disk_time;
          state.content = file.content;
          if (file.is_outdated) {
            _fPlan.to_clear.push_back(file.loc);  // rows that no scan finds any more would stay
          }
        },
        [this](Loc loc, const CContentMark& mark) { _fStates[loc].content = mark; },
        [this](const CTie& tie) { TakeTie(tie); });
  }

  CIndexPlan Make() {
    for (size_t i = 0; i < _fFound.files.size(); ++i) {
      const CFoundFile& file = _fFound.files[i];
      if (IsIndexed(file.loc, *_fStatesOfFound[i])) {
        ++_fPlan.unchanged;
      } else {
        _fChanged.insert(file.loc);
        _fPlan.to_scan.push_back(file);
      }
    }
    for (auto& [loc, state] : _fStates) {
      if (state.is_stored && state.found == nullptr && IsRemoved(loc, state)) {
        ++_fPlan.removed;
        _fChanged.insert(loc);
        _fPlan.to_clear.push_back(loc);
      }
    }
    for (const Loc loc : _fDb.LostSources()) {
      _fAgain.insert(loc);
    }
    FollowTies();
    AddFilesToScanAgain();
    std::sort(_fPlan.to_clear.begin(), _fPlan.to_clear.end());
    _fPlan.to_clear.erase(std::unique(_fPlan.to_clear.begin(), _fPlan.to_clear.end()),
                          _fPlan.to_clear.end());
    return std::move(_fPlan);
  }

 private:
  // The present time of the file; looked for once. A file of the tree was looked at when it was
  // found.
  DiskTime TimeOf(Loc loc, CFileState& state) {
    if (!state.now) {
      const bool is_as_read =
          state.found != nullptr && state.content && state.content->Fits(state.found->stamp);
      if (!is_as_read) {
        _fTimes.Remember(loc, state.content.value_or(CContentMark()));
      }
      state.now = is_as_read               ? state.content->disk_time
                  : state.found != nullptr ? _fTimes.TimeOf(loc, state.found->stamp)
                                           : _fTimes.TimeOf(loc);
    }
    return *state.now;
  }
  DiskTime TimeOf(Loc loc) { return TimeOf(loc, _fStates[loc]); }

  // Whether it is stored as it is on the disk now, with all scans.
  bool IsIndexed(Loc loc, CFileState& state) {
    return state.is_scanned && state.stored == TimeOf(loc, state);
  }

  bool IsRemoved(Loc loc, CFileState& state) {
    const auto path = PathForLocation(loc);
    return path && IsBelow(*path, _fFound.paths) && TimeOf(loc, state) == kGone;
  }

  void TakeTie(const CTie& tie) {
    if (!tie.scanned_loc) {
      return;
    }
    bool is_stale = tie.scopes_seen == nullptr;
    bool leads_elsewhere = false;  // what is there, or is a package, and was not, or the other way
    if (tie.scopes_seen != nullptr) {
      for (const auto& [scope, time] : *tie.scopes_seen) {
        if (const DiskTime now = TimeOf(scope.loc); now != time) {
          is_stale = true;
          leads_elsewhere |= now == kGone || time == kGone;
        }
      }
    }
    if (!(tie.scanned_loc == tie.for_loc)) {
      _fSources[tie.for_loc].insert(tie.scanned_loc);
      if (is_stale) {
        _fMisinformed.insert(tie.for_loc);
      }
    } else if (is_stale) {
      _fAgain.insert(tie.for_loc);
      if (leads_elsewhere) {
        _fElsewhere.insert(tie.for_loc);
      }
    }
  }

  void FollowTies() {
    for (const auto& [loc, sources] : _fSources) {
      const bool is_misinformed = _fMisinformed.contains(loc) || TimeOf(loc) == kGone ||
                                  std::any_of(sources.begin(), sources.end(), [this](Loc source) {
                                    return _fChanged.contains(source) ||
                                           _fElsewhere.contains(source) || TimeOf(source) == kGone;
                                  });
      if (is_misinformed) {
        _fMisinformed.insert(loc);
      }
      if (is_misinformed || _fChanged.contains(loc) || _fElsewhere.contains(loc)) {
        _fAgain.insert(sources.begin(), sources.end());
      }
    }
    // Also of files that are scanned anyway: if one is there at its old time, after a run that was
    // cut short or because its imports lead elsewhere, saving it keeps the rows that no scan finds
    // any more.
    for (const CLocSet* const files : {&_fMisinformed, &_fElsewhere}) {
      _fPlan.to_clear.insert(_fPlan.to_clear.end(), files->begin(), files->end());
      _fAgain.insert(files->begin(), files->end());
    }
  }

  void AddFilesToScanAgain() {
    for (const Loc loc : _fAgain) {
      if (!_fChanged.contains(loc) && IsIndexed(loc, _fStates[loc])) {
        const CFileState& state = _fStates[loc];
        _fPlan.to_forget.push_back({*PathForLocation(loc), loc,
                                    state.found != nullptr ? state.found->stamp : CFileStamp()});
      }
    }
    std::sort(_fPlan.to_forget.begin(), _fPlan.to_forget.end(),
              [](const CFoundFile& a, const CFoundFile& b) { return a.path < b.path; });
    for (const CFoundFile& file : _fPlan.to_forget) {
      _fPlan.unchanged -= _fStates[file.loc].found != nullptr ? 1 : 0;
      _fPlan.to_scan.push_back(file);
    }
  }

  CSqliteAnalysisDb& _fDb;
  CDiskTimes& _fTimes;
  const CFoundFiles& _fFound;
  CIndexPlan _fPlan;

  std::unordered_map<Loc, CFileState> _fStates;
  std::vector<CFileState*> _fStatesOfFound;    // in the order of the found files
  CLocSet _fChanged;                           // new, changed or removed
  std::unordered_map<Loc, CLocSet> _fSources;  // B to the files A that have rows in it
  CLocSet _fMisinformed;                       // B with such a row that is no longer true
  CLocSet _fElsewhere;  // A whose imports lead to other files than when it was scanned
  CLocSet _fAgain;
};

}  // namespace

CIndexPlan MakeIndexPlan(CSqliteAnalysisDb& db, CDiskTimes& times, const CFoundFiles& found) {
  return CPlanner(db, times, found).Make();
}

}  // namespace pysource::standalone
