// The file as a whole: disk times, scans done, scope names.
#include "pysource/scopeinfo/filestate/perfileentry.h"

#include "pysource/host/assertions.h"
#include "pysource/scopeinfo/records/vocabulary.h"

namespace pysource::scopeinfo {

CFileStateOwner::~CFileStateOwner() = default;

CPerFileEntry::CPerFileEntry(CFileStateOwner& info_cache, Loc file_loc, DiskTime mtime)
    : fInfoCache(info_cache),
      loc(file_loc),
      disk_mtime(mtime),
      // The database has nothing for a file that is modified in memory.
      fDatabaseChanged(mtime != kFileModifiedInMemoryMtime),
      _fCrossFileData(info_cache.CrossFileData()) {}

void CPerFileEntry::ClearAllInfo(bool also_clear_db) {
  primary_info_dict.clear();
  if (_fWalks != 0) {
    _fForgotten.push_back(std::move(serialized_data_dict));
  }
  serialized_data_dict.clear();
  for (const CScopeInfoKey& key : _fCrossFileData.GetInfoKeysByForLoc(loc)) {
    _fCrossFileData.RemoveInfoKey(key);
  }
  if (also_clear_db) {
    clear_db = true;
  }
  UpdateScopeNamesNotLoaded();
}

void CPerFileEntry::UpdateScopeNamesNotLoaded() {
  db_scope_names_not_loaded.clear();
  for (const Text& name : all_db_scope_names) {
    // A scope counts as loaded even if its list of records has become empty.
    if (!serialized_data_dict.Contains(name)) {
      db_scope_names_not_loaded.insert(name);
    }
  }
}

void CPerFileEntry::SetScansDone(TextView scans_done) {
  if (scans_done != fScansDone) {
    fScansDone = scans_done;
    fScansDoneNeedsToBeWritten = true;
  }
}

bool CPerFileEntry::IsPrimaryScanDone() const {
  const std::vector<Text>& scan_names = fInfoCache.ScanNames();
  // Searching the whole text is enough: no scan name is a prefix of another.
  return !scan_names.empty() && fScansDone.find(scan_names[0]) != Text::npos;
}

void CPerFileEntry::UpdateDiskMtime(DiskTime mtime, CKeysDict& keys_dict) {
  const DiskTime old_mtime = disk_mtime;
  if (mtime == old_mtime) {
    return;
  }
  disk_mtime = mtime;
  all_db_scope_names.clear();
  UpdateScopeNamesNotLoaded();
  // What the database holds, it holds for the old time.
  for (const CScopeInfoKey& key : _fCrossFileData.GetInDatabaseInfoKeys(loc)) {
    _fCrossFileData.RemoveInDatabaseInfoKey(key);
  }
  if (mtime != kFileModifiedInMemoryMtime && old_mtime != kFileModifiedInMemoryMtime) {
    // The file changed on disk. The records keep the times that they saw: they are stale anyway.
    CScopeInfoKeySet keys = _fCrossFileData.GetScannedLocInfoKeys(loc);
    if (!keys.empty()) {
      _fCrossFileData.AddNeedsScanInfoKeySet(keys);
      keys_dict.Set(loc, std::move(keys));
    }
    SetScansDone("");
    return;
  }
  if (mtime != kFileModifiedInMemoryMtime) {
    // The content in memory was saved, so the records are valid for the new time.
    for (const CScopeInfoKey& key : _fCrossFileData.GetInfoKeysByForLoc(loc)) {
      if (!_fCrossFileData._fAllNeedsScanInfoKeys.contains(key)) {
        _fCrossFileData.AddToWriteInfoKey(key);
      }
    }
  }
  for (const auto& [scope_name, info] : primary_info_dict) {
    info->disk_mtime = mtime;
  }
  for (const auto& [scope_name, records] : serialized_data_dict) {
    for (const CSerializedRecord& record : records) {
      UpdateScopesSeenDiskMtime(record, old_mtime);
    }
  }
}

void CPerFileEntry::UpdateScopesSeenDiskMtime(const CSerializedRecord& record,
                                              DiskTime old_mtime) const {
  if (record.scopes_seen == nullptr) {
    return;
  }
  for (auto& [scope, mtime] : *record.scopes_seen) {
    Assert(static_cast<bool>(scope.loc));
    // The time seen is rounded to single precision, which keeps the three markers exact and changes
    // a time of the clock. So in effect only the step away from "modified in memory" updates it. A
    // record that saw this file at a real time is meant to fail the time check after an edit, and
    // would pass if its time were updated.
    if (scope.loc == loc && static_cast<DiskTime>(static_cast<float>(mtime)) == old_mtime) {
      mtime = disk_mtime;
    }
  }
}

TextSet CPerFileEntry::GetScopeNamesInMemory() const {
  TextSet names;
  names.reserve(serialized_data_dict.size());
  for (const auto& [name, records] : serialized_data_dict) {
    names.insert(name);
  }
  return names;
}

const TextSet& CPerFileEntry::GetScopeNamesNotInMemory() const {
  static const TextSet kNone;
  // The database does not apply to a file that is modified in memory.
  return disk_mtime == kFileModifiedInMemoryMtime ? kNone : db_scope_names_not_loaded;
}

TextSet CPerFileEntry::GetScopeNamesNotInMemory(const TextSet& name_set) const {
  TextSet names;
  for (const Text& name : GetScopeNamesNotInMemory()) {
    if (name_set.contains(name)) {
      names.insert(name);
    }
  }
  return names;
}

TextSet CPerFileEntry::GetAllScopeNames() const {
  TextSet names = GetScopeNamesInMemory();
  const TextSet& not_loaded = GetScopeNamesNotInMemory();
  names.insert(not_loaded.begin(), not_loaded.end());
  return names;
}

size_t CPerFileEntry::GetSerializedDataCount() const {
  size_t count = 0;
  for (const auto& [name, records] : serialized_data_dict) {
    count += records.size();
  }
  return count;
}

size_t CPerFileEntry::GetSerializedDataCount(TextView scope_name) const {
  const RecordList* const records = serialized_data_dict.Find(scope_name);
  return records == nullptr ? 0 : records->size();
}

}  // namespace pysource::scopeinfo
