// From a request to a merged record, through memory and the database.
#include <algorithm>
#include <typeinfo>

#include "pysource/host/assertions.h"
#include "pysource/host/singleton.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/scopeinfo/infocache/infocache.h"
#include "pysource/scopeinfo/records/mergescopeinfo.h"
#include "pysource/scopeinfo/records/vocabulary.h"

namespace pysource::scopeinfo {
namespace {

const CSecondaryFiles& NoSecondaryFiles() {
  static const CSecondaryFiles kNone = std::make_shared<const std::vector<Loc>>();
  return kNone;
}

bool IsScanDone(const CPerFileEntry& per_file, TextView scan_name) {
  return per_file.fScansDone.find(scan_name) != Text::npos;
}

}  // namespace

Text CInfoCache::CMergedKey::Repr() const {
  return FormatBraces("({}, {}, {})", {loc, pysource::Repr(scope_name), *other_locs});
}

CScopeInfoPtr CInfoCache::GetScopeInfo(Loc loc, TextView scope_name, bool merge_secondary,
                                       CNeedsScanDict* needs_scan_dict) {
  Assert(needs_scan_dict == nullptr || needs_scan_dict->empty());
  Assert(static_cast<bool>(loc));
  if (!loc) {
    // The one bad argument that is tolerated when assertions are off: editors ask for whatever is
    // under the cursor, and there is not always a file behind it.
    fLog("None loc passed to GetScopeInfo()");
    return nullptr;
  }
  const CRequestView request{loc, scope_name, merge_secondary, _fShortcutStamp};
  if (const auto known = _fMergedInfoCache.EntryOf(request); known != CScopeDependency::kNoEntry) {
    const CShortcut& shortcut = _fMergedInfoCache.KeyAt(known).shortcut;
    if (IsUpToDate(*shortcut.per_file)) {
      // The value is already true: MarkReturned set it before the shortcut was made.
      _fUsedScopesDict.MarkUsed(shortcut.used_slot);
      return AnswerWith(_fMergedInfoCache.Use(known), *shortcut.per_file, needs_scan_dict);
    }
  }
  return FindOrMerge(loc, scope_name, merge_secondary, needs_scan_dict);
}

const CScopeInfoPtr& CInfoCache::AnswerWith(const CMergedValue& found,
                                            const CPerFileEntry& per_file,
                                            CNeedsScanDict* needs_scan_dict) {
  if (needs_scan_dict != nullptr && found.needs_scan != nullptr) {
    for (const auto& [scope, scan_names] : *found.needs_scan) {
      needs_scan_dict->Set(scope, scan_names);
    }
  }
  // The record gets the present time, whatever time the file had when the record was merged.
  found.merged_info->disk_mtime = per_file.disk_mtime;
  return found.merged_info;
}

// GetScopeInfo without a shortcut. A separate function, so that the path with a shortcut does not
// reserve the stack space that this one needs.
CScopeInfoPtr CInfoCache::FindOrMerge(Loc loc, TextView scope_name, bool merge_secondary,
                                      CNeedsScanDict* needs_scan_dict) {
  const CPerFilePtr per_file = GetPerFile(loc, true);
  const CSecondaryFiles other_locs = merge_secondary ? GetSecondaryFiles(loc) : NoSecondaryFiles();

  const CMergedKeyView merged_key(loc, scope_name, *other_locs);
  if (const auto found = _fMergedInfoCache.LookupInCache(merged_key); found.value != nullptr) {
    const auto used_slot = MarkReturned(loc, scope_name);
    RememberShortcut(merged_key, merge_secondary, per_file, used_slot);
    return AnswerWith(*found.value, *per_file, needs_scan_dict);
  }

  const bool log_is_open = fLog.fOutputFile != nullptr;
  if (log_is_open) {
    fLog("GetScopeInfo(%r, %r): not in _fMergedInfoCache", loc, scope_name);
  }
  CScopeRefSet all_scopes_seen;
  CNeedsScanDict own_needs_scan_dict;
  CNeedsScanDict& needs_scan = needs_scan_dict != nullptr ? *needs_scan_dict : own_needs_scan_dict;

  if (per_file->GetSerializedDataCount(scope_name) == 0) {
    if (per_file->db_scope_names_not_loaded.contains(scope_name)) {
      ReadScopeInfoListFromDb(*per_file, {Text(scope_name)});
    } else if (IsInNoFile(loc, *per_file, scope_name, *other_locs, needs_scan)) {
      if (log_is_open) {
        fLog("GetScopeInfo(%r, %r): not in any file\n  needs_scan_dict = %r", loc, scope_name,
             needs_scan);
        fLog("  scans_done = %r", per_file->fScansDone);
        fLog("  all_db_scope_names = %r", per_file->all_db_scope_names);
      }
      return nullptr;
    }
  }

  std::optional<std::vector<CScopeInfoPtr>> info_list =
      per_file->GetInfoListToMerge(scope_name, all_scopes_seen, needs_scan);
  for (const Loc other_loc : *other_locs) {
    const CPerFilePtr other_per_file = GetPerFile(other_loc, true);
    if (other_per_file == nullptr) {
      continue;
    }
    if (other_per_file->GetSerializedDataCount(scope_name) == 0) {
      ReadSecondaryScope(other_loc, *other_per_file, scope_name, needs_scan);
    }
    auto other_list = other_per_file->GetInfoListToMerge(scope_name, all_scopes_seen, needs_scan);
    if (!other_list) {
      continue;
    }
    if (!info_list) {
      info_list = std::move(other_list);
    } else {
      info_list->insert(info_list->end(), other_list->begin(), other_list->end());
    }
  }
  if (!info_list) {
    fLog("GetScopeInfo(%r, %r): info_list is None\n  needs_scan_dict = %r", loc, scope_name,
         needs_scan);
    return nullptr;
  }

  const CScopeInfoPtr first = info_list->front();
  info_list->erase(info_list->begin());
  // Merged into a copy: the stored record stays as the scan made it.
  CScopeInfoPtr merged_info = MergeScopeInfoSeq(first->Copy(), *info_list, {});
  for (const auto& [scope, scan_names] : needs_scan) {
    // The merged record must also be purged when a scope that still has to be scanned changes.
    all_scopes_seen.insert(scope);
  }
  std::shared_ptr<const CNeedsScanDict> kept_needs_scan;
  if (!needs_scan.empty()) {
    kept_needs_scan = std::make_shared<const CNeedsScanDict>(needs_scan);
  }
  _fMergedInfoCache.AddToCache(CMergedKey{loc, Text(scope_name), {}, other_locs},
                               CMergedValue{merged_info, std::move(kept_needs_scan)},
                               all_scopes_seen);
  MarkReturned(loc, scope_name);
  if (log_is_open) {
    fLog("GetScopeInfo(%r, %r): returning merged_info\n  needs_scan_dict = %r", loc, scope_name,
         needs_scan);
  }
  return merged_info;
}

// Lets the same request find the merged record in one step from now on. Does nothing if the file's
// entry or its secondary files, as found on the way, are no longer those that the cache holds, and
// nothing in a subclass that has not called TakeShortcuts.
// REQUIRES: the merged record is in the cache.
void CInfoCache::RememberShortcut(const CMergedKeyView& key, bool merge_secondary,
                                  const CPerFilePtr& per_file, CUsedScopes::Slot used_slot) const {
  if (!_fTakesShortcuts && typeid(*this) != typeid(CInfoCache)) {
    return;
  }
  const CSecondaryFiles* const kept_files = _fSecondaryFiles.Find(key.loc);
  const bool files_as_kept =
      !merge_secondary || (kept_files != nullptr && kept_files->get() == &key.other_locs);
  if (files_as_kept && FindPerFile(key.loc) == per_file) {
    _fMergedInfoCache.KeyAt(_fMergedInfoCache.EntryOf(key)).shortcut = {
        _fShortcutStamp, per_file.get(), used_slot, merge_secondary};
  }
}

// Whether there is content to scan. A file with unsaved changes has content, so the disk is not
// asked. Asks the caller's location object, which can be another one than the entry's.
bool CInfoCache::IsContentThere(Loc loc, const CPerFileEntry& per_file) {
  return per_file.disk_mtime == kFileModifiedInMemoryMtime || loc->DoesResourceExist();
}

// True when no secondary file has anything for the scope either. Requests the primary scan of the
// file if it was not done, and reads what the secondary files have.
// REQUIRES: the file itself has nothing for the scope, neither in memory nor unread.
bool CInfoCache::IsInNoFile(Loc loc, CPerFileEntry& per_file, TextView scope_name,
                            const std::vector<Loc>& other_locs, CNeedsScanDict& needs_scan_dict) {
  bool not_in_any_file = true;
  const Text& primary_scan_name = PrimaryScanName();
  if (!IsScanDone(per_file, primary_scan_name) && IsContentThere(loc, per_file)) {
    CPerFileEntry::AddToNeedsScanDict(needs_scan_dict, loc, scope_name, primary_scan_name);
  }
  if (IsTopLevelModuleScope(scope_name) && per_file.IsPrimaryScanDone() &&
      IsContentThere(loc, per_file)) {
    // The scan counts as done but made no module scope. Nothing is repaired here; the scan is
    // requested again.
    CriticalLog("GetScopeInfo(%r, %r): top level module scope not read when primary scan is done",
                loc, scope_name);
    CriticalLog("  scans_done = %r", per_file.fScansDone);
    CriticalLog("  all_db_scope_names = %r", per_file.all_db_scope_names);
    CPerFileEntry::AddToNeedsScanDict(needs_scan_dict, loc, scope_name, primary_scan_name);
  }
  for (const Loc other_loc : other_locs) {
    const CPerFilePtr other_per_file = GetPerFile(other_loc, true);
    if (other_per_file == nullptr) {
      continue;
    }
    if (other_per_file->GetSerializedDataCount(scope_name) != 0) {
      not_in_any_file = false;
      continue;
    }
    if (other_per_file->db_scope_names_not_loaded.contains(scope_name)) {
      not_in_any_file = false;
    }
    ReadSecondaryScope(other_loc, *other_per_file, scope_name, needs_scan_dict);
  }
  return not_in_any_file;
}

// Reads the scope of a secondary file if it is unread, and requests the primary scan of that file
// if there are still no records.
void CInfoCache::ReadSecondaryScope(Loc other_loc, CPerFileEntry& other_per_file,
                                    TextView scope_name, CNeedsScanDict& needs_scan_dict) {
  const Text& primary_scan_name = PrimaryScanName();
  if (other_per_file.db_scope_names_not_loaded.contains(scope_name)) {
    ReadScopeInfoListFromDb(other_per_file, {Text(scope_name)});
  }
  if (other_per_file.GetSerializedDataCount(scope_name) == 0 &&
      !IsScanDone(other_per_file, primary_scan_name) && other_loc->DoesResourceExist()) {
    CPerFileEntry::AddToNeedsScanDict(needs_scan_dict, other_loc, scope_name, primary_scan_name);
  }
}

std::vector<CScopeInfoPtr> CInfoCache::GetMultipleScopeInfos(
    Loc loc, const std::vector<Text>& scope_name_seq, bool merge_secondary) {
  const CPerFilePtr per_file = GetPerFile(loc, true);
  TextSet not_in_serialized;
  for (const Text& name : scope_name_seq) {
    if (!per_file->serialized_data_dict.Contains(name)) {
      not_in_serialized.insert(name);
    }
  }
  if (!not_in_serialized.empty()) {
    ReadScopeInfoListFromDb(*per_file, {not_in_serialized.begin(), not_in_serialized.end()});
  }
  std::vector<CScopeInfoPtr> infos;
  infos.reserve(scope_name_seq.size());
  for (const Text& name : scope_name_seq) {
    infos.push_back(GetScopeInfo(loc, name, merge_secondary));
  }
  return infos;
}

TextSet CInfoCache::GetAllScopeNames(Loc loc, bool include_inst_scopes,
                                     bool include_secondary_files) {
  TextSet all_scope_names = GetPerFile(loc, true)->GetAllScopeNames();
  if (include_secondary_files) {
    // Held, since the list in the cache is dropped when import resolution changes. Secondary files
    // of secondary files are not followed.
    const CSecondaryFiles secondary_locs = GetSecondaryFiles(loc);
    for (const Loc secondary_loc : *secondary_locs) {
      all_scope_names.merge(GetAllScopeNames(secondary_loc, false, false));
    }
  }
  if (!include_inst_scopes) {
    std::erase_if(all_scope_names, [](const Text& name) { return IsInstanceScope(name); });
  }
  return all_scope_names;
}

CSecondaryFiles CInfoCache::GetSecondaryFiles(Loc loc) {
  if (const CSecondaryFiles* const known = _fSecondaryFiles.Find(loc)) {
    return *known;
  }
  CAnalysisFactory& factory = *singleton::GetSingletons().fAnalysisMgr->fAnalysisFactory;
  std::vector<Loc> locs = factory.GetSecondaryLocations(loc);
  CSecondaryFiles secondary =
      locs.empty() ? NoSecondaryFiles() : std::make_shared<const std::vector<Loc>>(std::move(locs));
  if (_fSecondaryFiles.Contains(loc)) {
    // As in GetPerFile: a handler filled in an answer meanwhile, which this one replaces.
    ForgetShortcuts();
  }
  _fSecondaryFiles.Set(loc, secondary);
  for (const Loc secondary_loc : *secondary) {
    _fReverseSecondaryFiles.GetOrMake(secondary_loc).insert(loc);
  }
  return secondary;
}

std::vector<Text> CInfoCache::GetScopeNamesToReadFromDb(const CPerFileEntry& per_file,
                                                        TextView scope_name) const {
  // The room left in the cache; can be zero or negative.
  ptrdiff_t max_to_read = _fMaxInfoCount - static_cast<ptrdiff_t>(_fUsedScopesDict.length());
  const TextSet& not_loaded = per_file.db_scope_names_not_loaded;
  if (!not_loaded.contains(scope_name)) {
    return {};
  }
  const auto unread = static_cast<ptrdiff_t>(not_loaded.size());
  const auto primaries = static_cast<double>(per_file.primary_info_dict.size());
  if (unread < _fMaxForAllScopeRead && unread <= max_to_read &&
      primaries < static_cast<double>(_fMaxForAllScopeRead) * 0.5) {
    return {Text(kWildcardScope)};
  }
  if (IsTopLevelModuleScope(scope_name)) {
    return {Text(kModuleScopeName)};
  }
  std::vector<Text> result{Text(scope_name)};
  max_to_read = std::min(max_to_read, _fMaxForAllScopeRead);
  if (max_to_read > 0 && not_loaded.contains(kModuleScopeName)) {
    result.emplace_back(kModuleScopeName);
  }
  for (auto name = not_loaded.begin();
       name != not_loaded.end() && static_cast<ptrdiff_t>(result.size()) < max_to_read; ++name) {
    if (*name != kModuleScopeName && *name != scope_name &&
        !per_file.serialized_data_dict.Contains(*name)) {
      result.push_back(*name);
    }
  }
  return result;
}

void CInfoCache::ReadScopeInfoListFromDb(CPerFileEntry& per_file,
                                         std::vector<Text> scope_name_list) {
  if (static_cast<ptrdiff_t>(_fUsedScopesDict.length()) + 1 >= _fMaxInfoCount) {
    TrimNotModified(_fMaxInfoCount - 3 * _fMaxForAllScopeRead, _fMaxInfoCount / 4, &per_file);
  }
  if (scope_name_list.size() == 1) {
    const Text name = std::move(scope_name_list[0]);
    scope_name_list.clear();
    if (per_file.db_scope_names_not_loaded.contains(name)) {
      scope_name_list = GetScopeNamesToReadFromDb(per_file, name);
    }
  }
  if (scope_name_list.empty()) {
    return;
  }
  const bool is_wildcard_read = std::find(scope_name_list.begin(), scope_name_list.end(),
                                          kWildcardScope) != scope_name_list.end();
  const std::vector<CDatabaseRecord> records =
      Db().ReadScopeDataRecords(per_file.loc, fScanNames, scope_name_list, per_file.disk_mtime);
  for (const CDatabaseRecord& row : records) {
    const CScopeInfoKey key(row.for_loc, row.for_scope, row.scan_name, row.scanned_loc,
                            row.scanned_scope);
    Assert(row.for_loc == per_file.loc);
    if (_fCrossFileData._fAllInfoKeys.contains(key)) {
      // Expected after a wildcard read. A scope that was requested by name should not have been in
      // memory.
      if (!is_wildcard_read) {
        PrintLine(FormatBraces("Read key already in memory: {}", {key}));
      }
      continue;
    }
    _fCrossFileData.AddInfoKey(key, nullptr, false);
    _fCrossFileData.AddInDatabaseInfoKey(key);
    per_file.SetSerializedRecord(key, row.data, BytesView(), BytesView(), false, row.scopes_seen,
                                 false, nullptr);
    if (row.scopes_seen != nullptr) {
      for (const auto& [scope, mtime] : *row.scopes_seen) {
        if (!ValidOnDiskMtime(mtime)) {
          // It depends on a file without a valid time, so it is stale from the start.
          _fCrossFileData.AddNeedsScanInfoKey(key);
          break;
        }
      }
    }
    MarkPresent(row.for_loc, row.for_scope);
  }
  ScheduleIdle();
}

// Notes that the scope was returned, which counts as a use. No allocation for a known scope.
CInfoCache::CUsedScopes::Slot CInfoCache::MarkReturned(Loc loc, TextView scope_name) {
  const auto slot = _fUsedScopesDict.SlotOf(CScopeRefView(loc, scope_name));
  if (slot == CUsedScopes::kNoSlot) {
    return _fUsedScopesDict.Add(CScopeRef{loc, Text(scope_name)}, true);
  }
  _fUsedScopesDict.MarkUsed(slot);
  _fUsedScopesDict.ValueAt(slot) = true;
  return slot;
}

// Notes that the scope is in memory, without counting it as a use.
void CInfoCache::MarkPresent(Loc loc, TextView scope_name) {
  _fUsedScopesDict.EnterUnused(
      CScopeRefView(loc, scope_name),
      [&] {
        return CScopeRef{loc, Text(scope_name)};
      },
      false);
}

}  // namespace pysource::scopeinfo
