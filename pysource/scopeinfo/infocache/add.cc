// How scan results enter the cache, and which signals report them.
#include <algorithm>

#include "pysource/host/assertions.h"
#include "pysource/scopeinfo/infocache/infocache.h"
#include "pysource/scopeinfo/records/vocabulary.h"

namespace pysource::scopeinfo {

bool CInfoCache::AddScopeInfo(const CScopeInfoPtr& scope_info, bool allow_write) {
  const CScopeInfoKey key = scope_info->key;
  fLog("AddScopeInfo called scope_info.key %r", key);
  const CPerFilePtr per_file = GetPerFile(scope_info->loc, true);
  if (!BringDiskTimeIntoLine(*per_file, *scope_info)) {
    fLog("  not adding info because disk_mtime differs");
    return false;
  }
  // Continue with the entry already held, even if a handler of kNeedsScanAdded, emitted above, has
  // cleared the file and with it removed the entry from the cache.

  // Collected before storing, which replaces the record's own dependencies.
  CScopeInfoKeySet dep_keys =
      _fCrossFileData.GetDependentScanKeysOfScope(key.for_loc(), key.for_scope());
  if (!StoreAndPurgeIfRenewed(*per_file, scope_info)) {
    return false;
  }
  CNeedsScanSet needs_scan;
  if (!dep_keys.empty()) {
    MaybeInvalidateDependantScans(*scope_info, dep_keys, needs_scan);
  }
  MarkPresent(scope_info->loc, scope_info->for_scope);
  _fCrossFileData.RemoveInDatabaseInfoKey(key);
  _fCrossFileData.AddToWriteInfoKey(key);
  // Unlike in the list form, the scanned location is not compared with the file: a single record is
  // taken as the primary one of the file that it is for.
  if (key.scan_name() == PrimaryScanName() && scope_info->for_scope == scope_info->scanned_scope) {
    per_file->primary_info_dict.Set(Text(scope_info->for_scope), scope_info);
  }
  if (!needs_scan.empty()) {
    emit(kNeedsScanAdded, needs_scan, Priority());
  }
  CChangedDict changed_dict;
  AddToChangedDict(changed_dict, per_file->loc, key.for_scope());
  AddPrimaryFileToChangedDict(changed_dict);
  emit(kScopesModified, changed_dict);
  FinishAdd(allow_write);
  return true;
}

// Whether the record was made from the present content of the file. If the file has changed since
// the entry got its time and the record has the new time, the entry takes over the new time.
bool CInfoCache::BringDiskTimeIntoLine(CPerFileEntry& per_file, const CScopeInfo& scope_info) {
  if (!scope_info.disk_mtime || *scope_info.disk_mtime == per_file.disk_mtime) {
    return true;
  }
  const DiskTime disk_mtime =
      HasModifiedBuffer(per_file.loc) ? kFileModifiedInMemoryMtime : GetDiskMTime(per_file.loc);
  if (disk_mtime != *scope_info.disk_mtime) {
    return false;
  }
  CKeysDict keys_dict;
  per_file.UpdateDiskMtime(*scope_info.disk_mtime, keys_dict);
  if (!keys_dict.empty()) {
    if (CScopeInfoKeySet* const keys = keys_dict.Find(per_file.loc)) {
      // The record that is being added must not invalidate itself.
      keys->erase(scope_info.key);
    }
    InvalidateScans(keys_dict, /*whole_files=*/true, nullptr, 2);
  }
  return true;
}

// Stores the record; true if it changed. A record that comes out unchanged though its key needed a
// scan triggers no signal. Merged records that were made without it would go on requesting the scan
// that has just been done, so they are purged.
bool CInfoCache::StoreAndPurgeIfRenewed(CPerFileEntry& per_file, const CScopeInfoPtr& scope_info) {
  const bool needed_scan = _fCrossFileData._fAllNeedsScanInfoKeys.contains(scope_info->key);
  const bool changed = per_file.StoreScopeInfo(scope_info);
  if (!changed && needed_scan) {
    _fMergedInfoCache.InvalidateScopes(scope_info->scanned_loc,
                                       {Text(scope_info->scanned_scope.value_or(TextView()))});
  }
  return changed;
}

bool CInfoCache::AddScopeInfoListForSingleScan(Loc scanned_loc, TextView scanned_scope,
                                               TextView scan_name,
                                               const std::vector<CScopeInfoPtr>& scope_info_list,
                                               bool allow_write) {
  fLog("AddScopeInfoListForSingleScan called scan_name = %r, scope_info_list = %r", scan_name,
       scope_info_list);
  CChangedDict changed_dict;
  CNeedsScanSet needs_scan;
  const CPerFilePtr per_file = GetPerFile(scanned_loc, true);
  // What this scan found earlier. What it finds again is taken out below; the rest is removed.
  CScopeInfoKeySet old_keys =
      _fCrossFileData.GetScannedLocInfoKeys(scanned_loc, scanned_scope, scan_name);
  for (const CScopeInfoPtr& scope_info : scope_info_list) {
    Assert(scanned_loc == scope_info->scanned_loc);
    Assert(scanned_scope == scope_info->scanned_scope);
    const TextView for_scope = scope_info->for_scope;
    if (old_keys.empty()) {
      // What constructing a key would assert; the record's own key has asserted everything else.
      Assert(scan_name.starts_with(':'));
    } else {
      old_keys.erase(
          CScopeInfoKey(scope_info->loc, for_scope, scan_name, scanned_loc, scanned_scope));
    }
    const CPerFilePtr info_per_file = GetPerFile(scope_info->loc, true);
    if (!info_per_file->db_scope_names_not_loaded.empty() &&
        info_per_file->db_scope_names_not_loaded.contains(for_scope)) {
      // Storing compares the record with the stored one, which must be in memory for that.
      ReadScopeInfoListFromDb(*info_per_file, {Text(for_scope)});
    }
    CScopeInfoKeySet dep_keys =
        _fCrossFileData.GetDependentScanKeysOfScope(scope_info->key.for_loc(), for_scope);
    if (StoreAndPurgeIfRenewed(*info_per_file, scope_info)) {
      if (!dep_keys.empty()) {
        MaybeInvalidateDependantScans(*scope_info, dep_keys, needs_scan);
      }
      if (scan_name == PrimaryScanName() && scope_info->loc == scope_info->scanned_loc &&
          for_scope == scope_info->scanned_scope) {
        info_per_file->primary_info_dict.GetOrMake(for_scope) = scope_info;
      }
      AddToChangedDict(changed_dict, scope_info->loc, for_scope);
    }
    // Queued also when unchanged, since the scan was run again.
    _fCrossFileData.RemoveInDatabaseInfoKey(scope_info->key);
    _fCrossFileData.AddToWriteInfoKey(scope_info->key);
    MarkPresent(scope_info->loc, for_scope);
  }
  for (const CScopeInfoKey& key : old_keys) {
    const CPerFilePtr old_per_file = GetPerFile(key.for_loc(), true);
    if (old_per_file->RemoveSerializedRecords(scan_name, key.for_scope(), scanned_loc,
                                              scanned_scope)) {
      AddToChangedDict(changed_dict, key.for_loc(), key.for_scope());
    }
  }
  if (!needs_scan.empty()) {
    // This scan has just run. The signal is emitted even if that leaves the set empty.
    needs_scan.erase(CNeedsScan{scanned_loc, Text(scanned_scope), Text(scan_name)});
    emit(kNeedsScanAdded, needs_scan, Priority());
  }
  if (!changed_dict.empty()) {
    AddPrimaryFileToChangedDict(changed_dict);
    emit(kScopesModified, changed_dict);
  }
  FinishAdd(allow_write);
  return true;
}

void CInfoCache::FinishAdd(bool allow_write) {
  if (allow_write) {
    DoIdle();
  } else {
    ScheduleIdle();
  }
}

void CInfoCache::RemoveScopeInfoSeq(
    const std::vector<std::variant<CScopeInfoPtr, CScopeInfoToRemove>>& to_remove) {
  for (const auto& item : to_remove) {
    if (const CScopeInfoPtr* const info = std::get_if<CScopeInfoPtr>(&item)) {
      GetPerFile((*info)->loc, true)
          ->RemoveSerializedRecords(kWildcardScope, (*info)->for_scope, (*info)->scanned_loc,
                                    (*info)->scanned_scope);
    } else {
      const auto& named = std::get<CScopeInfoToRemove>(item);
      GetPerFile(named.loc, true)
          ->RemoveSerializedRecords(kWildcardScope, named.for_scope, named.scanned_loc,
                                    named.scanned_scope);
    }
  }
}

// Reports a change of a secondary file also as a change of each file that merges it.
void CInfoCache::AddPrimaryFileToChangedDict(CChangedDict& changed_dict) const {
  // Copied first, since the dictionary grows during the walk.
  std::vector<std::pair<Loc, std::shared_ptr<TextSet>>> items;
  for (const auto& [loc, scopes] : changed_dict) {
    items.emplace_back(loc, scopes);
  }
  for (const auto& [loc, scopes] : items) {
    const CLocSet* const primary_locs = _fReverseSecondaryFiles.Find(loc);
    if (primary_locs == nullptr) {
      continue;
    }
    for (const Loc primary_loc : *primary_locs) {
      if (const auto* const existing = changed_dict.Find(primary_loc)) {
        (*existing)->insert(scopes->begin(), scopes->end());
      } else {
        // The same set object, not a copy: receivers do not change it.
        changed_dict.Set(primary_loc, scopes);
      }
    }
  }
}

void CInfoCache::DisableAddDependentsToChangedDict(CChangedDict& changed,
                                                   const CKeysDict& dep_key_dict) {
  for (const auto& [loc, key_set] : dep_key_dict) {
    std::shared_ptr<TextSet>& existing_set = changed.GetOrMake(loc);
    if (existing_set == nullptr) {
      existing_set = std::make_shared<TextSet>();
    }
    for (const CScopeInfoKey& key : key_set) {
      existing_set->emplace(key.scan_name().value_or(TextView()));
    }
  }
  AddPrimaryFileToChangedDict(changed);
}

}  // namespace pysource::scopeinfo
