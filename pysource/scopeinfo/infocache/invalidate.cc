// Marking records as stale, and requesting the scans that renew them.
#include "pysource/host/assertions.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/scopeinfo/infocache/infocache.h"

namespace pysource::scopeinfo {
namespace {

CNeedsScan NeedsScanOf(const CScopeInfoKey& key) {
  return {key.scanned_loc(), Text(key.scanned_scope().value_or(TextView())),
          Text(key.scan_name().value_or(TextView()))};
}

}  // namespace

void CInfoCache::InvalidateScans(const CKeysDict& keys_dict, bool whole_files,
                                 CNeedsScanSet* needs_scan, Priority priority,
                                 bool emit_needs_scan_added) {
  CNeedsScanSet own_needs_scan;
  CNeedsScanSet& to_scan = needs_scan != nullptr ? *needs_scan : own_needs_scan;
  for (const auto& [loc, key_set] : keys_dict) {
    _fCrossFileData.AddNeedsScanInfoKeySet(key_set);
    if (whole_files) {
      for (const Text& scan_name : fScanNames) {
        to_scan.insert(CNeedsScan{loc, Text(kWildcardScope), scan_name});
        ChangeScansDone(loc, scan_name, false);
      }
      continue;
    }
    for (const CScopeInfoKey& key : key_set) {
      const auto scan = to_scan.insert(NeedsScanOf(key)).first;
      // The file of the dictionary entry, where AddDepKeysToNeedsScan uses the scanned file: here
      // the keys are those scanned from that file, which is the one that changed.
      ChangeScansDone(loc, scan->scan_name, false);
    }
  }
  if (emit_needs_scan_added) {
    // Emitted also when there is nothing to scan.
    emit(kNeedsScanAdded, to_scan, priority);
  }
}

void CInfoCache::AddDepKeysToNeedsScan(const CScopeInfoKeySet& dep_keys, CNeedsScanSet* needs_scan,
                                       Priority priority, bool emit_needs_scan_added) {
  CNeedsScanSet own_needs_scan;
  CNeedsScanSet& to_scan = needs_scan != nullptr ? *needs_scan : own_needs_scan;
  _fCrossFileData.AddNeedsScanInfoKeySet(dep_keys);
  for (const CScopeInfoKey& key : dep_keys) {
    const auto scan = to_scan.insert(NeedsScanOf(key)).first;
    ChangeScansDone(key.scanned_loc(), scan->scan_name, false);
  }
  if (emit_needs_scan_added) {
    emit(kNeedsScanAdded, to_scan, priority);
  }
}

// A record was just stored, and `dep_keys` are the scans that looked at its scope. Marks them as
// stale, except those that the record itself accounts for: a scan must not invalidate itself. Emits
// nothing; the caller does, once.
void CInfoCache::MaybeInvalidateDependantScans(const CScopeInfo& info, CScopeInfoKeySet& dep_keys,
                                               CNeedsScanSet& needs_scan) {
  const auto scan_name = info.key.scan_name();
  const auto own_scan_is_asked_for = [&] { return needs_scan.contains(NeedsScanOf(info.key)); };
  if (AssertionsActive()) {
    Assert(scan_name.has_value());
    Assert(!own_scan_is_asked_for());
  }
  if (info.scope_seen_dict != nullptr) {
    for (const auto& [seen, mtime] : *info.scope_seen_dict) {
      dep_keys.erase(CScopeInfoKey(info.loc, info.for_scope, scan_name, seen.loc, seen.scope));
      if (dep_keys.empty()) {
        return;
      }
    }
  }
  dep_keys.erase(info.key);
  if (dep_keys.empty()) {
    return;
  }
  const std::vector<CScopeInfoKey> keys(dep_keys.begin(), dep_keys.end());
  for (const CScopeInfoKey& key : keys) {
    // Records of the same scan of the same scope, whatever scope they are for, do not depend on
    // each other.
    if (key.scan_name() == scan_name && key.scanned_loc() == info.scanned_loc &&
        key.scanned_scope() == info.scanned_scope) {
      dep_keys.erase(key);
    }
  }
  if (!dep_keys.empty()) {
    AddDepKeysToNeedsScan(dep_keys, &needs_scan, std::nullopt, false);
    Assert(!AssertionsActive() || !own_scan_is_asked_for());
  }
}

void CInfoCache::FinishedWithScans(Loc loc, TextView scope_name, TextView scan_name) {
  const CPerFilePtr per_file = GetPerFile(loc, false);
  if (per_file == nullptr) {
    return;
  }
  CChangedDict changed_dict;
  const TextSet scope_name_set{Text(scope_name)};
  per_file->RemoveInvalidScans(&scope_name_set, {Text(scan_name)}, changed_dict);
  if (changed_dict.empty()) {
    return;
  }
  AddPrimaryFileToChangedDict(changed_dict);
  emit(kScopesModified, changed_dict);
}

}  // namespace pysource::scopeinfo
