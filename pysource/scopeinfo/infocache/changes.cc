// Changes outside the cache: of files, buffers, analyses, import resolution and the database.
#include "pysource/host/assertions.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/scopeinfo/infocache/infocache.h"
#include "pysource/scopeinfo/records/vocabulary.h"

namespace pysource::scopeinfo {
namespace {

std::shared_ptr<TextSet> WildcardScopes() {
  return std::make_shared<TextSet>(TextSet{Text(kWildcardScope)});
}

}  // namespace

void CInfoCache::CB_ExternalChanges(const CLocMtimeDict& locs_changed) {
  CKeysDict changed_dict;
  for (const auto& [loc, mtime] : locs_changed) {
    const CPerFilePtr per_file = FindPerFile(loc);
    // An edited buffer takes precedence over the disk.
    if (per_file != nullptr && per_file->disk_mtime != kFileModifiedInMemoryMtime) {
      per_file->UpdateDiskMtime(mtime < 0 ? kFileDoesNotExistMtime : mtime, changed_dict);
    }
  }
  if (!changed_dict.empty()) {
    InvalidateScans(changed_dict, true, nullptr, 2);
  }
}

void CInfoCache::CB_SavableSavePoint(const CSavable& savable, bool not_modified) {
  const CPerFilePtr per_file = GetPerFile(savable.fLocation, false);
  if (per_file == nullptr || !savable.GetInitialReadCompleted()) {
    return;
  }
  const DiskTime disk_mtime =
      not_modified ? savable.GetLastKnownModTime() : kFileModifiedInMemoryMtime;
  if (per_file->disk_mtime == disk_mtime) {
    return;
  }
  if (disk_mtime == kFileModifiedInMemoryMtime && !per_file->db_scope_names_not_loaded.empty()) {
    // Read what belongs to the content on disk while its disk time is still known; the database
    // returns rows only for a matching time.
    const TextSet& names = per_file->db_scope_names_not_loaded;
    ReadScopeInfoListFromDb(*per_file, {names.begin(), names.end()});
  }
  CKeysDict changed_dict;
  per_file->UpdateDiskMtime(disk_mtime, changed_dict);
  Assert(changed_dict.empty());
}

void CInfoCache::CB_ScopesChanged(const CPySourceAnalysis& ana, const TextSet& scopes) {
  const Loc loc = ana.fLocation;
  const CPerFilePtr per_file = FindPerFile(loc);
  if (per_file == nullptr) {
    return;
  }
  if (ana.fLogicalCache.fMatchedDiskMTime == per_file->disk_mtime &&
      per_file->disk_mtime != kFileModifiedInMemoryMtime) {
    // The analysis still matches the content that was scanned.
    return;
  }
  per_file->SetScansDone("");
  CKeysDict keys_dict;
  keys_dict.Set(loc, _fCrossFileData.GetScannedLocInfoKeys(loc, &scopes));
  InvalidateScans(keys_dict, scopes.contains(kWildcardScope), nullptr, 1, true);
}

void CInfoCache::CB_ImportResolutionChanged() {
  ForgetShortcuts();
  _fSecondaryFiles.clear();
  _fReverseSecondaryFiles.clear();
}

void CInfoCache::CheckForDatabaseChanges() {
  // The database reports the changes themselves through kExternalDbContentsChanged.
  PrintLine(Db().CheckForExternalChanges());
}

void CInfoCache::CB_ExternalDatabaseChanged(const CLocSet* changed_loc_set) {
  CChangedDict changed_dict;
  const auto take = [&](const CPerFilePtr& per_file) {
    // A file that is modified in memory does not depend on the database.
    if (per_file != nullptr && ValidOnDiskMtime(per_file->disk_mtime)) {
      per_file->fDatabaseChanged = true;
      per_file->ClearAllInfo();
      changed_dict.Set(per_file->loc, WildcardScopes());
    }
  };
  if (changed_loc_set != nullptr) {
    for (const Loc loc : *changed_loc_set) {
      take(FindPerFile(loc));
    }
  } else {
    // Continuity is lost: any row may have been removed.
    for (const auto& [loc, per_file] : _fPerFileDict) {
      take(per_file);
    }
  }
  if (!changed_dict.empty()) {
    AddPrimaryFileToChangedDict(changed_dict);
    emit(kScopesModified, changed_dict);
  }
}

void CInfoCache::Clear() {
  fLog("CInfoCache.Clear() called");
  CChangedDict changed_dict;
  const std::shared_ptr<TextSet> all_scopes = WildcardScopes();
  for (const auto& [loc, per_file] : _fPerFileDict) {
    changed_dict.Set(loc, all_scopes);
  }
  emit(kScopesModified, changed_dict);
  ForgetShortcuts();
  _fPerFileDict.clear();
  _fUsedScopesDict.Clear();
  _fMergedInfoCache.Clear();
  _fCrossFileData.Clear();
}

void CInfoCache::ClearFiles(const std::vector<Loc>& loc_seq, bool clear_db) {
  std::vector<Loc> loc_set;
  CLocSet seen;
  for (const Loc loc : loc_seq) {
    if (seen.insert(loc).second) {
      loc_set.push_back(loc);
    }
  }
  fLog("CInfoCache.ClearFiles called (clear_db=%r): %r", clear_db, seen);
  CChangedDict changed;
  for (const Loc loc : loc_set) {
    if (const CPerFilePtr per_file = GetPerFile(loc, false)) {
      changed.Set(per_file->loc, WildcardScopes());
    }
  }
  AddPrimaryFileToChangedDict(changed);
  // Emitted before the files are cleared.
  emit(kScopesModified, changed);
  const std::vector<Text> all_scopes{Text(kWildcardScope)};
  if (clear_db) {
    std::vector<CPerFilePtr> per_file_list;
    per_file_list.reserve(loc_set.size());
    for (const Loc loc : loc_set) {
      per_file_list.push_back(GetPerFile(loc, true));
    }
    for (const CPerFilePtr& per_file : per_file_list) {
      DiscardScopeInfo(*per_file, all_scopes, true, false);
      per_file->SetScansDone("");
      per_file->clear_db = true;
    }
    WriteToDatabase(loc_set);
    for (const CPerFilePtr& per_file : per_file_list) {
      DiscardScopeInfo(*per_file, all_scopes, true, true);
    }
  } else {
    std::vector<CPerFilePtr> existing_per_file_list;
    for (const Loc loc : loc_set) {
      if (CPerFilePtr per_file = GetPerFile(loc, false)) {
        existing_per_file_list.push_back(std::move(per_file));
      }
    }
    for (const CPerFilePtr& per_file : existing_per_file_list) {
      DiscardScopeInfo(*per_file, all_scopes, false, true);
      if (per_file->disk_mtime == kFileModifiedInMemoryMtime &&
          fCacheMgr->DoesCacheBufferExist(per_file->loc, true) == nullptr) {
        per_file->disk_mtime = kFileDoesNotExistMtime;
      }
    }
  }
  // A handler of the signal may have read the files again, including those without an entry before.
  for (const Loc loc : loc_set) {
    _fMergedInfoCache.InvalidateScopes(loc, {Text(kWildcardScope)});
  }
}

}  // namespace pysource::scopeinfo
