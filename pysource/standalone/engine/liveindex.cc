#include "pysource/standalone/engine/liveindex.h"

#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <optional>
#include <utility>

#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/standalone/engine/indexer.h"
#include "pysource/standalone/files/packagemark.h"

namespace pysource::standalone {
namespace {

std::string PathOf(Loc loc) { return PathForLocation(loc).value_or(loc->fUrl); }

// Absent where there is no file.
std::optional<CFileStamp> StampAt(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)
             ? std::optional(StampOf(status))
             : std::nullopt;
}

bool IsOnDisk(Loc loc) { return StampAt(PathOf(loc)).has_value(); }

}  // namespace

CLiveIndex::CLiveIndex(CGlibMainLoop& loop, CEngineOptions engine, CLiveIndexOptions options)
    : _fLoop(loop), _fOptions(std::move(options)) {
  engine.notify = [this, alive = std::weak_ptr(_fAlive)] {
    _fLoop.PostFromThread([this, alive] {
      if (!alive.expired()) {
        WakeUp();
      }
    });
  };
  const int lock_wait_ms = engine.lock_wait_ms;
  _fEngine = std::make_unique<CEngine>(std::move(engine));
  // One callback makes many operations of the database.
  const auto begin_work = [this, lock_wait_ms] { _fEngine->Database().LimitWaiting(lock_wait_ms); };
  begin_work();
  _fLoop.SetBeforeEach(begin_work);
  ConnectToEngine();
}

CLiveIndex::~CLiveIndex() {
  _fLoop.SetBeforeEach(nullptr);
  _fWatcher.reset();
  _fLoop.idle_remove(_fWorkTag);
  _fLoop.timeout_remove(_fTryAgainTag);
  _fLoop.timeout_remove(_fLookAtDatabaseTag);
  _fEngine.reset();
}

void CLiveIndex::ConnectToEngine() {
  _fEngine->Scans().fOnScanned = [this](const CScanJobResult& result) {
    TakeScanned(result.job.loc);
  };
  _fEngine->Scans().fOnFailure = [this](const CScanRunner::Failure& failure) {
    TakeFailure(failure);
  };
  _fEngine->Files().connect(
      kExternalFilesChanged,
      [this](CSavableManager&, const CLocMtimeDict& times) { TakeTimes(times); });
  _fEngine->Cache().connect(kNeedsScanAdded,
                            [this](CInfoCacheBase&, const CNeedsScanSet& needs_scan, Priority) {
                              for (const CNeedsScan& scan : needs_scan) {
                                if (scan.scanned_scope == kWildcardScope) {
                                  _fAsked.insert(scan.scanned_loc);
                                }
                              }
                            });
  // After the cache, which was there first and has forgotten these files by now.
  _fEngine->Database().connect(kExternalDbContentsChanged,
                               [this](CAnalysisDb&, const CLocSet* files) {
                                 if (_fOptions.on_database_changed) {
                                   _fOptions.on_database_changed(files);
                                 }
                                 Unsettle();
                               });
}

void CLiveIndex::Start() {
  Guarded([this] { _fEngine->Database().EnsureSound(); });
  _fEngine->Database().Distrust();
  _fWatcher = std::make_unique<CTreeWatcher>(
      _fLoop, CTreeWatcherOptions{
                  .on_changed = [this](const CTreeChanges& changes) { TakeChanges(changes); },
                  .on_error =
                      [this](const std::string& path, const std::string& text) {
                        if (_fOptions.on_trouble) {
                          _fOptions.on_trouble({path, text});
                        }
                      }});
  // Watched first, and looked at then: what changes in between is told of.
  for (const std::string& path : _fOptions.paths) {
    _fWatcher->Watch(path);
  }
  _fTree = FindPythonFiles(_fOptions.paths, _fEngine->Locations());
  for (CFoundFile& file : std::exchange(_fTree.files, {})) {
    const std::string path = file.path;
    _fTreeFiles.emplace(path, std::move(file));
  }
  for (const CPathNote& bad : _fTree.bad) {
    if (_fOptions.on_trouble) {
      _fOptions.on_trouble(bad);
    }
  }
  _fEngine->Resolver().SetRoots(_fTree.roots);
  _fLookAtDatabaseTag = _fLoop.timeout_add(_fOptions.look_at_database_ms, [this] {
    LookAtDatabase();
    return true;
  });
  Unsettle();
}

std::vector<CPathNote> CLiveIndex::WriteAll() {
  std::vector<CPathNote> refused;
  try {
    _fEngine->Cache().WriteToDatabase();
    for (const Loc loc : _fEngine->Cache().GetFilesHeld()) {
      if (IsRefused(loc)) {
        refused.push_back({PathOf(loc), _fEngine->Database().RefusalOf(loc)});
      }
    }
  } catch (const std::exception& error) {
    refused.push_back({_fEngine->Database().Path(), error.what()});
  }
  return refused;
}

// Whether the database would not take something of the file. What else waits is for the cache to
// know: records for a file that is gone have nowhere to go.
bool CLiveIndex::IsRefused(Loc loc) {
  if (_fEngine->Database().RefusalOf(loc).empty()) {
    return false;
  }
  const auto file = _fEngine->Cache().GetFileHeld(loc);
  return file && (file->is_deletion_unwritten ||
                  (file->disk_mtime > 0 && (_fEngine->Cache().GetUnwrittenCount(loc) != 0 ||
                                            file->are_scans_done_unwritten)));
}

// ---- What changes.

void CLiveIndex::TakeChanges(const CTreeChanges& changes) {
  bool came_or_went = false;
  bool stub_came_or_went = false;
  for (const auto& [path, change] : changes) {
    if (change != ETreeChange::kEdited) {
      came_or_went = true;
      stub_came_or_went |= path.ends_with(".pyi");
    }
  }
  if (came_or_went) {
    _fEngine->Resolver().Clear();
  }
  if (stub_came_or_went) {
    _fEngine->Factory().emit(kImportResolutionChanged);
  }
  Unsettle();
  for (const auto& [path, change] : changes) {
    const Loc loc = _fEngine->Locations().GetLocationForPath(path);
    if (const auto stamp = StampAt(path); stamp && change != ETreeChange::kGone) {
      _fTreeFiles[path] = {path, loc, *stamp};
    } else {
      _fTreeFiles.erase(path);
    }
    _fChanged.insert(loc);
    if (MakesPackage(path)) {
      const std::string folder = path.substr(0, path.rfind('/'));
      _fChanged.insert(_fEngine->Locations().GetLocationForPath(PackageMark(folder)));
    }
  }
}

// Somebody has found that a file has another time by now, perhaps the scan runner, which is about
// to store a result for that time: what rests on the old one is found before.
void CLiveIndex::TakeTimes(const CLocMtimeDict& times) {
  bool is_news = false;
  for (const auto& [loc, time] : times) {
    const auto known = _fTreeFiles.find(PathOf(loc));
    const auto stamp = StampAt(PathOf(loc));
    if (known != _fTreeFiles.end() && stamp && known->second.stamp != *stamp) {
      known->second.stamp = *stamp;
      is_news = true;
    }
  }
  if (is_news) {
    Unsettle();
    Guarded([this] { (void)MakePlan(); });
  }
}

void CLiveIndex::LookAtDatabase() {
  Guarded([this] { (void)_fEngine->Database().CheckForExternalChanges(); });
  // A damaged database was set aside, for one.
  const std::string& message = _fEngine->Database().Message();
  if (message != _fDatabaseMessage && _fOptions.on_trouble) {
    _fOptions.on_trouble({_fEngine->Database().Path(), message});
  }
  _fDatabaseMessage = message;
}

void CLiveIndex::Unsettle() {
  _fTried.clear();
  _fIsPlanDue = true;
  _fIsSettled = false;
  WakeUp();
}

// ---- The work, in idle time: one result at a time, so that the loop stays responsive, and with
// the priority of the cache's own housekeeping, so that the two take turns.

void CLiveIndex::WakeUp() {
  if (_fWorkTag == 0 && _fTryAgainTag == 0) {
    _fWorkTag = _fLoop.idle_add(
        [this] {
          bool is_more = false;
          Guarded([&] { is_more = Work(); });
          if (!is_more || _fTryAgainTag != 0) {
            _fWorkTag = 0;
            return false;
          }
          return true;
        },
        velk::PRIORITY_LOW_IDLE);
  }
}

// Whether there is more to do now. While scans are in hand there is not: their results wake up.
bool CLiveIndex::Work() {
  if (_fIsPlanDue) {
    (void)MakePlan();
    return _fTryAgainTag == 0;
  }
  if (_fEngine->Scans().HandOverReady(0, 1) != 0) {
    return true;
  }
  if (_fEngine->Scans().IsBusy() || _fIsSettled) {
    return false;
  }
  if (MakePlan()) {
    return true;
  }
  if (_fTryAgainTag == 0) {
    Settled();
  }
  return false;
}

void CLiveIndex::Settled() {
  _fIsSettled = true;
  _fTold.clear();
  _fMetLock = false;
  _fEngine->DiskTimes().Save();
  const size_t scanned = std::exchange(_fScanned, 0);
  if (_fOptions.on_ready) {
    _fOptions.on_ready(scanned, _fTreeFiles.size());
  }
}

// Compares the database with the tree, and asks for what that shows to be stale. False if it shows
// nothing that was not tried. After trouble it remains to be done.
bool CLiveIndex::MakePlan() {
  for (const CPathNote& refused : WriteAll()) {
    Trouble(refused);
  }
  if (_fTryAgainTag != 0) {
    return false;
  }
  _fTree.files.clear();
  for (const auto& [path, file] : _fTreeFiles) {
    _fTree.files.push_back(file);
  }
  const bool is_news = Follow(MakeIndexPlan(_fEngine->Database(), _fEngine->DiskTimes(), _fTree));
  _fIsPlanDue = _fTryAgainTag != 0;
  return is_news;
}

bool CLiveIndex::Follow(const CIndexPlan& plan) {
  const auto is_news = [this](const CFoundFile& file) {
    const auto tried = _fTried.find(file.loc);
    return tried == _fTried.end() || tried->second != file.stamp;
  };
  const bool is_to_do =
      plan.removed != 0 || std::any_of(plan.to_scan.begin(), plan.to_scan.end(), is_news);
  if (is_to_do) {
    for (const CPathNote& refused : ForgetForPlan(*_fEngine, plan)) {
      Trouble(refused);
    }
    if (_fTryAgainTag != 0) {
      return false;
    }
    for (const Loc loc : plan.to_clear) {
      if (_fOptions.on_removed && !IsOnDisk(loc)) {
        _fOptions.on_removed(loc);
      }
    }
  }
  _fAsked.clear();
  CheckChanged();
  if (is_to_do) {
    CLocSet unchanged;
    for (const CFoundFile& file : plan.to_forget) {
      unchanged.insert(file.loc);
    }
    for (const CFoundFile& file : plan.to_scan) {
      _fTried[file.loc] = file.stamp;
      if (unchanged.contains(file.loc)) {
        _fEngine->Scans().RequestFileLast(file.loc);
      } else if (!_fAsked.contains(file.loc)) {
        _fEngine->Scans().RequestFile(file.loc);
      }
    }
  }
  return is_to_do;
}

// Of the files that it knows the cache says itself what has to be scanned.
void CLiveIndex::CheckChanged() {
  for (const Loc loc : std::exchange(_fChanged, {})) {
    _fEngine->Files().CheckFile(loc);
  }
}

void CLiveIndex::TakeScanned(Loc loc) {
  ++_fScanned;
  // A scan of the whole file is written already, one of some of its scopes is not.
  _fEngine->Cache().WriteToDatabase({loc});
  if (IsRefused(loc)) {
    Trouble({PathOf(loc), _fEngine->Database().RefusalOf(loc)});
  }
  if (_fOptions.on_scanned) {
    _fOptions.on_scanned(loc);
  }
}

void CLiveIndex::TakeFailure(const CScanRunner::Failure& failure) {
  if (failure.was_scanned) {
    Trouble({PathOf(failure.loc), failure.message});
  } else if (_fOptions.on_failed && IsOnDisk(failure.loc)) {
    // One that went while it waited is told of as removed.
    _fOptions.on_failed(failure.loc, failure.message);
  }
}

// ---- What goes wrong.

void CLiveIndex::Guarded(const std::function<void()>& work) {
  try {
    work();
  } catch (const std::exception& error) {
    Trouble({_fEngine->Database().Path(), error.what()});
  }
}

void CLiveIndex::Trouble(const CPathNote& note) {
  // A lock is mostly that of a save in hand: it is told of when the next try meets it again.
  const bool is_brief = _fEngine->Database().MetLock() && (!_fMetLock || _fTryAgainTag != 0);
  _fMetLock = _fMetLock || is_brief;
  if (!is_brief && _fOptions.on_trouble && _fTold.insert(note.text).second) {
    _fOptions.on_trouble(note);
  }
  if (_fTryAgainTag == 0) {
    _fTryAgainTag = _fLoop.timeout_add(_fOptions.try_again_ms, [this] {
      _fTryAgainTag = 0;
      Unsettle();
      return false;
    });
  }
}

}  // namespace pysource::standalone
