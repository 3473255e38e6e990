// What a host asks of the files and records in memory, and the two things that it may forget.
#include "pysource/scopeinfo/infocache/held.h"

#include <algorithm>

#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/scopeinfo/infocache/infocache.h"

namespace pysource::scopeinfo {

std::vector<Loc> CInfoCache::GetFilesHeld() const {
  std::vector<Loc> files;
  files.reserve(_fPerFileDict.size());
  for (const auto& [loc, per_file] : _fPerFileDict) {
    files.push_back(loc);
  }
  return files;
}

std::optional<CHeldFile> CInfoCache::GetFileHeld(Loc loc) const {
  const CPerFilePtr* const found = _fPerFileDict.Find(loc);
  if (found == nullptr) {
    return std::nullopt;
  }
  const CPerFileEntry& entry = **found;
  return CHeldFile{.disk_mtime = entry.disk_mtime,
                   .scans_done = entry.fScansDone,
                   .is_primary_scan_done = entry.IsPrimaryScanDone(),
                   .is_module_in_database = entry.all_db_scope_names.contains(kModuleScopeName),
                   .are_scans_done_unwritten = entry.fScansDoneNeedsToBeWritten,
                   .is_deletion_unwritten = entry.clear_db};
}

std::vector<CHeldRecord> CInfoCache::GetRecordsHeld(Loc loc, TextView scope_name) const {
  std::vector<CHeldRecord> held;
  const CPerFilePtr* const found = _fPerFileDict.Find(loc);
  const CPerFileEntry::RecordList* const records =
      found == nullptr ? nullptr : (*found)->serialized_data_dict.Find(scope_name);
  if (records == nullptr) {
    return held;
  }
  const CCrossFileData& keys = _fCrossFileData;
  for (const CSerializedRecord& record : *records) {
    const CScopeInfoKey& key = record.key;
    const EHeldState state =
        keys._fAllCouldNotWriteInfoKeys.contains(key) ? EHeldState::kCouldNotWrite
        : keys._fAllToWriteInfoKeys.contains(key)     ? EHeldState::kToWrite
        : keys._fAllInDatabaseInfoKeys.contains(key)  ? EHeldState::kInDatabase
                                                      : EHeldState::kInMemoryOnly;
    held.push_back({key, record.scopes_seen, state, keys._fAllNeedsScanInfoKeys.contains(key)});
  }
  return held;
}

size_t CInfoCache::GetUnwrittenCount(Loc loc) const {
  return _fCrossFileData.GetToWriteInfoKeyCount(loc);
}

bool CInfoCache::IsSettled(Loc loc) const {
  const CCrossFileData& keys = _fCrossFileData;
  if (keys.GetToWriteInfoKeyCount(loc) != 0 || !keys.GetScannedLocNeedsScanInfoKeys(loc).empty()) {
    return false;
  }
  const CScopeInfoKeySet from_here = keys.GetScannedLocInfoKeys(loc);
  const CScopeInfoKeySet for_here = keys.GetInfoKeysByForLoc(loc);
  return std::none_of(from_here.begin(), from_here.end(),
                      [&](const auto& key) { return keys._fAllToWriteInfoKeys.contains(key); }) &&
         std::none_of(for_here.begin(), for_here.end(),
                      [&](const auto& key) { return keys._fAllNeedsScanInfoKeys.contains(key); });
}

CScopeInfoKeySet CInfoCache::GetKeysScannedFrom(Loc loc, const TextSet* scope_names) const {
  return _fCrossFileData.GetScannedLocInfoKeys(loc, scope_names);
}

CScopeInfoKeySet CInfoCache::GetStaleKeysScannedFrom(Loc loc) const {
  return _fCrossFileData.GetScannedLocNeedsScanInfoKeys(loc);
}

CHeldCounts CInfoCache::GetCounts() const {
  return {.files = _fPerFileDict.size(),
          .known = _fCrossFileData._fAllInfoKeys.size(),
          .needs_scan = _fCrossFileData._fAllNeedsScanInfoKeys.size(),
          .in_database = _fCrossFileData._fAllInDatabaseInfoKeys.size(),
          .to_write = _fCrossFileData._fAllToWriteInfoKeys.size(),
          .could_not_write = _fCrossFileData._fAllCouldNotWriteInfoKeys.size(),
          .live_records = _fCrossFileData._fExistingScopeInfo.size()};
}

bool CInfoCache::ForgetScansDone(Loc loc) {
  const CPerFilePtr* const found = _fPerFileDict.Find(loc);
  if (found == nullptr) {
    return false;
  }
  // Kept: the entry can leave while its text changes.
  const CPerFilePtr per_file = *found;
  per_file->SetScansDone("");
  return true;
}

void CInfoCache::MarkStale(const CScopeInfoKey& key) { _fCrossFileData.AddNeedsScanInfoKey(key); }

}  // namespace pysource::scopeinfo
