#include "pysource/standalone/engine/engine.h"

#include <algorithm>
#include <utility>

namespace pysource::standalone {
namespace {

// How often Ask runs scans and asks again. Each round follows from the one before: a file, then the
// files that its records rest on. Real code settles in two or three.
constexpr int kMostRounds = 20;

constexpr unsigned kWaitMs = 100;

}  // namespace

CEngine::CEngine(CEngineOptions options)
    : _fResolver(_fLocCache, _fTimes, options.import_roots), _fFactory(_fLocCache) {
  _fDb = std::make_unique<CSqliteAnalysisDb>(
      CSqliteDbOptions{.path = options.db_path,
                       .workspace_root = options.workspace_root,
                       .lock_wait_ms = options.lock_wait_ms,
                       .scanner_version = options.scanner_version,
                       .is_cancelled = options.is_cancelled},
      _fLocCache);
  _fTimes.SetStore(_fDb.get());
  _fAnaMgr.fAnalysisDb = _fDb.get();
  _fAnaMgr.fAnalysisFactory = &_fFactory;
  _fSingletons.fSavableMgr = &_fFiles;
  _fSingletons.fCacheMgr = &_fBuffers;
  _fSingletons.fAnalysisMgr = &_fAnaMgr;
  _fOldSingletons = singleton::SetSingletons(&_fSingletons);
  _fCache = std::make_unique<scopeinfo::CInfoCache>(&_fAnaMgr, &_fLocCache, options.limits);
  _fAnaMgr.fInfoCache = _fCache.get();
  _fFiles.fOnFileChanged = [this](Loc loc, bool forgotten) { FileHasChanged(loc, forgotten); };
  _fCache->connect(kScopesModified,
                   [this](CInfoCacheBase&, const CChangedDict& changed) { TellOfStubs(changed); });
  _fDb->connect(kExternalDbContentsChanged, [this](CAnalysisDb&, const CLocSet* changed_locs) {
    DatabaseHasChanged(changed_locs);
  });
  _fCache->SetScanNames(ScanNames());
  _fScans =
      std::make_unique<CScanRunner>(*_fCache, *_fDb, _fFiles, _fTimes, _fBuffers, _fResolver,
                                    CScanRunner::Options{.threads = options.threads,
                                                         .max_file_bytes = options.max_file_bytes,
                                                         .notify = std::move(options.notify)});
  _fRepairs = _fDb->RepairCount();
}

CEngine::~CEngine() {
  _fScans.reset();
  _fCache.reset();
  _fTimes.Save();
  _fTimes.SetStore(nullptr);
  _fDb.reset();
  singleton::SetSingletons(_fOldSingletons);
}

scopeinfo::CScopeInfoPtr CEngine::Ask(Loc loc, TextView scope_name,
                                      const std::function<bool()>& between) {
  for (int round = 0;; ++round) {
    scopeinfo::CNeedsScanDict needs_scan;
    scopeinfo::CScopeInfoPtr info = _fCache->GetScopeInfo(loc, scope_name, true, &needs_scan);
    if (round == kMostRounds) {
      return info;
    }
    if (HasLostStored()) {
      continue;
    }
    _fScans->RequestForReader(needs_scan);
    if (!_fScans->IsBusy() || !RunScans(between)) {
      return info;
    }
  }
}

std::vector<std::pair<Text, scopeinfo::CScopeInfoPtr>> CEngine::AskFile(
    Loc loc, const std::function<bool()>& between) {
  (void)Ask(loc, kModuleScopeName, between);
  for (int round = 0;; ++round) {
    const TextSet name_set = _fCache->GetAllScopeNames(loc);
    const std::vector<Text> names(name_set.begin(), name_set.end());
    // All of them from one database call; each again for what it lacks, from memory.
    (void)_fCache->GetMultipleScopeInfos(loc, names, false);
    std::vector<std::pair<Text, scopeinfo::CScopeInfoPtr>> infos;
    for (const Text& name : names) {
      scopeinfo::CNeedsScanDict needs_scan;
      infos.emplace_back(name, _fCache->GetScopeInfo(loc, name, false, &needs_scan));
      _fScans->RequestForReader(needs_scan);
    }
    if (HasLostStored() && round != kMostRounds) {
      continue;
    }
    if (!_fScans->IsBusy() || round == kMostRounds || !RunScans(between)) {
      std::sort(infos.begin(), infos.end());
      return infos;
    }
  }
}

bool CEngine::HasLostStored() {
  if (_fDb->RepairCount() == _fRepairs) {
    return false;
  }
  _fRepairs = _fDb->RepairCount();
  (void)_fDb->CheckForExternalChanges();
  for (const Loc loc : _fDb->LostSources()) {
    _fScans->RequestFile(loc);
  }
  return true;
}

bool CEngine::RunScans(const std::function<bool()>& between) {
  while (_fScans->IsBusy()) {
    _fScans->HandOverReady(kWaitMs);
    if (between && !between()) {
      return false;
    }
  }
  return true;
}

void CEngine::CloseBuffer(Loc loc) {
  if (_fBuffers.Close(loc)) {
    // What the cache knows was of a text that is gone.
    _fCache->ClearFiles({loc}, false);
    // If the entry stays (its rows are still to be deleted), it is that of a missing file.
    CLocMtimeDict present;
    present.Set(loc, _fCache->GetDiskMTime(loc));
    _fFiles.emit(kExternalFilesChanged, present);
    FileHasChanged(loc, false);
  }
}

void CEngine::FileHasChanged(Loc loc, bool forgotten) {
  if (_fCache->GetDiskMTime(loc) == scopeinfo::kFileModifiedInMemoryMtime) {
    // An edited buffer hides the disk.
    return;
  }
  // What is in memory of the file the cache has marked itself, if the file was in memory all the
  // time. But merged records, and records for other files that were scanned from this one, can
  // outlive it: they stay when the file, or a scope of it, leaves memory. Where nothing was merged,
  // that is news for nobody.
  if (!forgotten && _fCache->IsFileHeld(loc) && !_fCache->HasMergedInfoOf(loc)) {
    return;
  }
  CChangedDict changed;
  changed.Set(loc, std::make_shared<TextSet>(TextSet{Text(kWildcardScope)}));
  _fCache->emit(kScopesModified, changed);
  const auto scanned_from = _fCache->GetKeysScannedFrom(loc);
  if (!scanned_from.empty()) {
    _fCache->AddDepKeysToNeedsScan(scanned_from);
  }
}

void CEngine::DatabaseHasChanged(const CLocSet* changed_locs) {
  // The cache has told of the files that it has an entry for.
  CChangedDict changed;
  for (const Loc loc : _fFiles.Forgotten()) {
    if (changed_locs == nullptr || changed_locs->contains(loc)) {
      changed.Set(loc, std::make_shared<TextSet>(TextSet{Text(kWildcardScope)}));
    }
  }
  if (!changed.empty()) {
    _fCache->emit(kScopesModified, changed);
  }
}

void CEngine::TellOfStubs(const CChangedDict& changed) {
  // A scope that only the stub had is told from the stub alone, and that answer rests on the stub
  // alone: it would outlive the coming of such a scope in the file itself.
  if (_fCache->MergedInfoCount() == 0) {
    return;
  }
  CChangedDict of_stubs;
  for (const auto& [loc, scopes] : changed) {
    for (const Loc stub : _fFactory.GetSecondaryLocations(loc)) {
      if (!changed.Contains(stub)) {
        of_stubs.Set(stub, scopes);
      }
    }
  }
  if (!of_stubs.empty()) {
    _fCache->emit(kScopesModified, of_stubs);
  }
}

}  // namespace pysource::standalone
