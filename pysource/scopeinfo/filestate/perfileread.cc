// From the records of a scope to the list to merge: which records are up to date, and which scans
// would make the answer better.
#include "pysource/host/assertions.h"
#include "pysource/host/repr.h"
#include "pysource/scopeinfo/filestate/perfileentry.h"

namespace pysource::scopeinfo {

// A walk over records during which a host service may be called, whose signals may change the
// entry. While a walk is in progress, the entry keeps the records that it forgets, so that the walk
// continues over the records that it began with.
class CPerFileEntry::CWalk {
 public:
  explicit CWalk(CPerFileEntry& entry) : _fEntry(entry), _fBegan(entry._fForgotten.size()) {
    ++_fEntry._fWalks;
  }
  ~CWalk() {
    if (--_fEntry._fWalks == 0) {
      _fEntry._fForgotten.clear();
    }
  }
  CWalk(const CWalk&) = delete;
  CWalk& operator=(const CWalk&) = delete;

  // The records of the scope among those that the walk began with; null if there are none.
  const RecordList* Find(TextView scope_name) const {
    const bool is_forgotten = _fEntry._fForgotten.size() > _fBegan;
    return (is_forgotten ? _fEntry._fForgotten[_fBegan] : _fEntry.serialized_data_dict)
        .Find(scope_name);
  }

 private:
  CPerFileEntry& _fEntry;
  const size_t _fBegan;
};

void CPerFileEntry::AddToNeedsScanDict(CNeedsScanDict& needs_scan_dict, Loc scanned_loc,
                                       TextView scanned_scope, TextView scan_name) {
  TextSet* scan_names = needs_scan_dict.Find(CScopeRefView(scanned_loc, scanned_scope));
  if (scan_names == nullptr) {
    scan_names = &needs_scan_dict.Set(CScopeRef{scanned_loc, Text(scanned_scope)}, TextSet());
  }
  scan_names->emplace(scan_name);
}

bool CPerFileEntry::CheckScopesSeen(const CScopesSeenDict& scopes_seen,
                                    const std::function<void()>& before_asking) {
  for (const auto& [scope, seen_mtime] : scopes_seen) {
    const DiskTime mtime = seen_mtime;
    CPerFilePtr per_file = fInfoCache.FindPerFile(scope.loc);
    if (per_file == nullptr) {
      if (before_asking) {
        before_asking();
      }
      // Make an entry, which finds out the present time of the file.
      per_file = GetOtherPerFile(scope.loc, true);
    }
    if (per_file->disk_mtime != mtime) {
      fInfoCache.Log()("mtimes mismatch for %r: %r != %r", scope.loc, mtime, per_file->disk_mtime);
      return false;
    }
  }
  return true;
}

CScopeInfoPtr CPerFileEntry::CreateInfoFromSerializedRecord(TextView scope_name,
                                                            const CSerializedRecord& record) {
  const BytesView data = BytesView(record.data);
  const CScopeInfoKey key =
      record.key.for_scope() == scope_name
          ? record.key
          : CScopeInfoKey(loc, scope_name, record.key.scan_name(), record.key.scanned_loc(),
                          record.key.scanned_scope());
  return fInfoCache.InfoSerializer().ReadScopeInfo(key, disk_mtime, record.incomplete, data);
}

CScopeInfoPtr CPerFileEntry::GetScopeInfoForKey(const CScopeInfoKey& key,
                                                const CSerializedRecord& record) {
  if (CScopeInfoPtr info = _fCrossFileData.LookupExistingSourceInfo(key)) {
    return info;
  }
  CScopeInfoPtr info = CreateInfoFromSerializedRecord(key.for_scope(), record);
  if (info == nullptr) {
    Assert(false, FormatBraces("Could not create CScopeInfo for {}", {key}));
    return nullptr;
  }
  _fCrossFileData.UpdateExistingSourceInfo(key, info);
  return info;
}

std::optional<std::vector<CScopeInfoPtr>> CPerFileEntry::GetInfoListToMerge(
    TextView scope_name, CScopeRefSet& all_scopes_seen, CNeedsScanDict& needs_scan_dict) {
  const CWalk walk(*this);
  const RecordList* record_list = walk.Find(scope_name);
  if (record_list == nullptr) {
    return std::nullopt;
  }
  const TextView primary_scan_name = fInfoCache.ScanNames()[0];
  std::vector<CScopeInfoPtr> info_list;
  CScopeInfoPtr primary_info;
  // By index: a host service may emit a signal whose handlers make the list longer or shorter, or
  // move it.
  for (size_t i = 0; i < record_list->size(); ++i) {
    const CSerializedRecord& record = (*record_list)[i];
    const CScopeInfoKey key = record.key;
    const auto scanned_scope = key.scanned_scope();
    const auto report = [&] {
      AddToNeedsScanDict(needs_scan_dict, key.scanned_loc(), scanned_scope.value_or(TextView()),
                         key.scan_name().value_or(TextView()));
    };
    if (record.scopes_seen != nullptr) {
      for (const auto& [scope, mtime] : *record.scopes_seen) {
        all_scopes_seen.insert(scope);
      }
    }
    CScopeInfoPtr info;
    if (_fCrossFileData._fAllNeedsScanInfoKeys.contains(key)) {
      report();
    } else {
      // A live record needs no check: its key would have been marked if it were stale.
      info = _fCrossFileData.LookupExistingSourceInfo(key);
      if (info == nullptr) {
        std::optional<CSerializedRecord> held;  // a copy of the record, once a service was called
        const auto hold = [&] {
          if (!held) {
            held = record;
          }
        };
        const bool can_be_trusted =
            record.scopes_seen == nullptr || CheckScopesSeen(*record.scopes_seen, hold);
        if (held) {
          record_list = walk.Find(scope_name);
        }
        if (can_be_trusted) {
          info = GetScopeInfoForKey(key, held ? *held : record);
        } else {
          fInfoCache.Log()("_CheckScopesSeen failed for %r: %r", key.scanned_loc(), scanned_scope);
          _fCrossFileData.AddNeedsScanInfoKey(key);
          report();
        }
      }
    }
    if (info == nullptr || info->does_not_exist) {
      continue;
    }
    // The scanned location is not compared: the primary scan of a scope of this name in any file
    // makes a primary record.
    if (scanned_scope == scope_name && key.scan_name() == primary_scan_name) {
      if (primary_info == nullptr) {
        primary_info = info;
        primary_info_dict.Set(Text(scope_name), info);
        info_list.insert(info_list.begin(), info);
      }
      all_scopes_seen.insert(CScopeRef{loc, Text(scope_name)});
    } else {
      info_list.push_back(info);
    }
  }
  if (primary_info == nullptr) {
    // Records of other scans alone are not an answer.
    AddToNeedsScanDict(needs_scan_dict, loc, scope_name, primary_scan_name);
    return std::nullopt;
  }
  return info_list;
}

}  // namespace pysource::scopeinfo
