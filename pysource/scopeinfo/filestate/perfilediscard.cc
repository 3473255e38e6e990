// Dropping records: to make room, and because their scopes no longer exist.
#include <algorithm>

#include "pysource/host/fastaccess.h"
#include "pysource/scopeinfo/filestate/perfileentry.h"

namespace pysource::scopeinfo {

CPerFilePtr CPerFileEntry::GetOtherPerFile(Loc other_loc, bool create) {
  if (LocationsEqual(other_loc, loc)) {
    // Even if this entry has left the cache meanwhile.
    return {std::shared_ptr<void>(), this};
  }
  if (CPerFilePtr per_file = fInfoCache.FindPerFile(other_loc)) {
    return per_file;
  }
  return create ? fInfoCache.GetPerFile(other_loc, true) : nullptr;
}

void CPerFileEntry::DiscardInfoForScannedScopes(const std::vector<Text>& scope_names,
                                                bool invalidate_dependents) {
  const TextSet scope_name_set(scope_names.begin(), scope_names.end());
  for (const CScopeInfoKey& key : _fCrossFileData.GetToWriteInfoKeys(loc, &scope_name_set)) {
    _fCrossFileData.RemoveCouldNotWriteInfoKey(key);
    _fCrossFileData.RemoveToWriteInfoKey(key);
  }
  for (const Text& scope_name : scope_names) {
    primary_info_dict.Erase(scope_name);
  }
  if (!invalidate_dependents) {
    return;
  }
  _fCrossFileData.AddNeedsScanInfoKeySet(_fCrossFileData.GetDependentScanKeys(loc, scope_name_set));
  for (const Text& scope_name : scope_name_set) {
    RemoveScannedDependantData(scope_name, scope_name_set);
  }
}

void CPerFileEntry::RemoveScannedDependantData(TextView scope_name, const TextSet& scope_name_set) {
  RecordList* const records = serialized_data_dict.Find(scope_name);
  if (records == nullptr) {
    return;
  }
  // Without AfterRecordRemoved: the keys stay in the indexes, so a key that needs a scan keeps
  // needing it.
  std::erase_if(*records, [&](const CSerializedRecord& record) {
    const auto scanned_scope = record.key.scanned_scope();
    return record.key.scanned_loc() == loc && scanned_scope &&
           scope_name_set.contains(*scanned_scope);
  });
}

void CPerFileEntry::RemoveInvalidScans(const TextSet* scope_name_set, const TextSet& scan_name_set,
                                       CChangedDict& changed_dict) {
  const CScopeInfoKeySet keys =
      _fCrossFileData.GetScannedLocNeedsScanInfoKeys(loc, scope_name_set, &scan_name_set);
  for (const CScopeInfoKey& key : keys) {
    // The filter has already checked this, except for a set that holds "*": that let every key
    // through, and this check lets none through.
    const auto scan_name = key.scan_name();
    if (!scan_name || !scan_name_set.contains(*scan_name)) {
      continue;
    }
    if (const CPerFilePtr per_file = GetOtherPerFile(key.for_loc(), false)) {
      per_file->RemoveSerializedRecords(scan_name, key.for_scope(), key.scanned_loc(),
                                        key.scanned_scope());
    }
    AddToChangedDict(changed_dict, key.for_loc(), key.for_scope());
  }
}

}  // namespace pysource::scopeinfo
