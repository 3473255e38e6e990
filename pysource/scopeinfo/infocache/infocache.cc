// Construction, wiring, and the operations that all paths use.
#include "pysource/scopeinfo/infocache/infocache.h"

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/host/singleton.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/scopeinfo/records/vocabulary.h"

namespace pysource::scopeinfo {

CInfoCache::CInfoCache(CAnalysisManager* ana_mgr, CLocationCache* loc_cache,
                       CInfoCacheLimits limits)
    : CInfoCacheBase({kScopesModified.name, kNeedsScanAdded.name}),
      // A placeholder until SetScanNames; a running cache has a primary scan and at least one
      // secondary scan.
      fScanNames{":unset"},
      fLocCache(loc_cache),
      fLog("InfoCache"),
      _fLimits(limits),
      _fMaxInfoCount(limits.kMaxInfoCount),
      _fMaxForAllScopeRead(limits.kMaxForAllScopeRead),
      _fAnaMgr(ana_mgr),
      fSavableMgr(singleton::GetSingletons().fSavableMgr),
      fCacheMgr(singleton::GetSingletons().fCacheMgr),
      _fCrossFileData(*this),
      _fMergedInfoCache("_fMergedInfoCache", limits.kMaxInfoCount) {
  class_connect_while_alive(
      kScopeLogicalsModified,
      [this](const CPySourceAnalysis& ana, const TextSet& scopes) {
        CB_ScopesChanged(ana, scopes);
      },
      *this);
  class_connect_while_alive(kImportResolutionChanged,
                            velk::NoArgCallback([this] { CB_ImportResolutionChanged(); }), *this);
  class_connect_while_alive(
      kSavePoint,
      [this](const CSavable& savable, bool not_modified) {
        CB_SavableSavePoint(savable, not_modified);
      },
      *this);
  fSavableMgr->connect_while_alive(
      kExternalFilesChanged,
      [this](const CSavableManager&, const CLocMtimeDict& changed) { CB_ExternalChanges(changed); },
      *this);
  Db().connect_while_alive(
      kExternalDbContentsChanged,
      [this](const CAnalysisDb&, const CLocSet* changed) { CB_ExternalDatabaseChanged(changed); },
      *this);
}

CInfoCache::~CInfoCache() {
  try {
    destroy();
  } catch (const std::exception& error) {
    // A destructor cannot pass on an exception of the database. An owner that wants it calls
    // destroy().
    CriticalLog("the info cache could not write its last records: %s", error.what());
  }
  // Again: if the database threw, destroy() did not get to this, and an operation after destroy()
  // may have scheduled another call.
  try {
    CancelPendingCalls();
  } catch (const std::exception& error) {
    CriticalLog("the info cache could not cancel its calls: %s", error.what());
  }
}

void CInfoCache::_destroy_impl() {
  WriteToDatabase();
  CancelPendingCalls();
  _fCrossFileData.destroy();
}

void CInfoCache::CancelPendingCalls() {
  if (_fIdleCallbackTag != 0) {
    velk::idle_remove(_fIdleCallbackTag);
    _fIdleCallbackTag = 0;
  }
  CancelWriteToDatabaseTimeout();
}

Bytes CInfoCache::EncodeScopeInfo(const CScopeInfo& info) {
  return fInfoSerializer.WriteScopeInfo(info);
}

CPerFilePtr CInfoCache::FindPerFile(Loc loc) const {
  const CPerFilePtr* const per_file = _fPerFileDict.Find(loc);
  return per_file == nullptr ? nullptr : *per_file;
}

CPerFilePtr CInfoCache::GetPerFile(Loc loc, bool create) {
  CPerFilePtr per_file = FindPerFile(loc);
  if (per_file == nullptr) {
    if (!create) {
      return nullptr;
    }
    per_file = std::make_shared<CPerFileEntry>(static_cast<CFileStateOwner&>(*this), loc,
                                               GetDiskMTime(loc));
    if (_fPerFileDict.Contains(loc)) {
      // GetDiskMTime emitted a signal whose handler made an entry for the same file. The new entry
      // replaces it, and no shortcut may point to the old one.
      ForgetShortcuts();
    }
    _fPerFileDict.Set(loc, per_file);
    fSavableMgr->AddFileLocToWatch(loc);
  }
  if (IsUpToDate(*per_file)) {
    return per_file;
  }
  per_file->fDatabaseChanged = false;
  const std::vector<Text> names =
      Db().ReadScopeNames(per_file->loc, PrimaryScanName(), per_file->disk_mtime);
  per_file->all_db_scope_names = TextSet(names.begin(), names.end());
  per_file->UpdateScopeNamesNotLoaded();
  if (per_file->all_db_scope_names.empty()) {
    per_file->SetScansDone("");
  } else {
    CLocMtimeDict loc_mtime_dict;
    loc_mtime_dict.Set(loc, per_file->disk_mtime);
    const CScansDoneDict scans_done = Db().GetScansDone(loc_mtime_dict);
    const Text* const stored = scans_done.Find(loc);
    per_file->fScansDone = stored == nullptr ? Text() : *stored;
    if (per_file->IsPrimaryScanDone() && !per_file->all_db_scope_names.contains(kModuleScopeName)) {
      // The database contradicts itself: the primary scan of a file always makes a record of the
      // module scope. Without scans done, the host runs them again.
      CriticalLog("_GetPerFile(%r): no top level module scope in all_db_scope_names", loc);
      CriticalLog("  all_db_scope_names = %r", per_file->all_db_scope_names);
      CriticalLog("  fScansDone = %r", per_file->fScansDone);
      per_file->SetScansDone("");
    }
  }
  // Scans done that were just read from the database, or corrected, need not be written.
  per_file->fScansDoneNeedsToBeWritten = false;
  return per_file;
}

DiskTime CInfoCache::GetDiskMTime(Loc loc) {
  if (const CCacheBuffer* const cache_buffer = fCacheMgr->DoesCacheBufferExist(loc, true)) {
    return cache_buffer->IsModified() ? kFileModifiedInMemoryMtime
                                      : cache_buffer->GetLastKnownModTime();
  }
  if (IsAsyncInspectLocation(loc) && loc->fInspectTime == 0) {
    return kFileUnknownOnDiskMtime;
  }
  const DiskTime mtime = fSavableMgr->GetLastModTimes({loc}, true).at(0);
  return mtime == 0 ? kFileDoesNotExistMtime : mtime;
}

bool CInfoCache::HasModifiedBuffer(Loc loc) const {
  const CCacheBuffer* const cache_buffer = fCacheMgr->DoesCacheBufferExist(loc, true);
  return cache_buffer != nullptr && cache_buffer->IsModified();
}

void CInfoCache::SetScanNames(const std::vector<Text>& scan_names) {
  if (scan_names.size() < 2) {
    throw CValueError("scan names sequence must have 2+ item");
  }
  if (fScanNames == scan_names) {
    return;
  }
  for (size_t i = 0; i < scan_names.size(); ++i) {
    for (size_t j = 0; j < scan_names.size(); ++j) {
      // The scans done of a file are one text, in which a name is searched for.
      if (i != j && scan_names[j].starts_with(scan_names[i])) {
        throw CValueError("scan name " + scan_names[i] + " is a prefix of " + scan_names[j]);
      }
    }
  }
  // The old names are kept: an operation up the stack may be walking over them, if a host service
  // that it called emitted a signal and the handler came here.
  _fFormerScanNames.push_back(std::exchange(fScanNames, scan_names));
  Clear();
}

void CInfoCache::CheckInvariants() const {
  _fCrossFileData.CheckInvariants();
  _fMergedInfoCache.AssertValidImpl();
  for (const auto& [loc, per_file] : _fPerFileDict) {
    Assert(per_file->loc == loc, "an entry is filed under another file");
    for (const auto& [scope_name, records] : per_file->serialized_data_dict) {
      Assert(!per_file->db_scope_names_not_loaded.contains(scope_name),
             "a scope in memory counts as not loaded");
      for (const CSerializedRecord& record : records) {
        Assert(record.key.for_loc() == loc && record.key.for_scope() == scope_name,
               "a record is filed under another scope");
        Assert(_fCrossFileData._fAllInfoKeys.contains(record.key), "a record has an unknown key");
      }
    }
    for (const Text& name : per_file->db_scope_names_not_loaded) {
      Assert(per_file->all_db_scope_names.contains(name),
             "a scope that the database does not hold counts as not loaded");
    }
  }
  _fMergedInfoCache.Visit([this](const CMergedKey& key, const CMergedValue&) {
    if (const CShortcut& shortcut = key.shortcut; shortcut.stamp == _fShortcutStamp) {
      Assert(FindPerFile(key.loc).get() == shortcut.per_file,
             "a shortcut leads to an entry that is gone");
      Assert(_fUsedScopesDict.SlotOf(CScopeRefView(key.loc, key.scope_name)) == shortcut.used_slot,
             "a shortcut leads to a scope that is not in use");
    }
  });
}

void CInfoCache::DbgCheckUsedScopes(Loc removed_loc) const {
  for (const auto& [scope, returned] : _fUsedScopesDict) {
    Assert(!(scope.loc == removed_loc), "a used scope names the removed file");
    if (!_fPerFileDict.Contains(scope.loc)) {
      CriticalLog("used scope %r: its file has no entry", scope);
    }
  }
}

}  // namespace pysource::scopeinfo
