// Housekeeping: keeps memory bounded, and writes what is unwritten in idle time.
#include <algorithm>

#include "pysource/host/assertions.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/scopeinfo/infocache/infocache.h"
#include "pysource/scopeinfo/records/vocabulary.h"

namespace pysource::scopeinfo {
namespace {

// Idle work writes when more records than this are unwritten.
constexpr ptrdiff_t kIdleWriteThreshold = 50;

}  // namespace

void CInfoCache::ScheduleIdle() {
  if (_fIdleCallbackTag == 0) {
    _fIdleCallbackTag = velk::idle_add(
        [this] {
          CB_OnIdle();
          return false;
        },
        velk::PRIORITY_LOW_IDLE);
  }
}

void CInfoCache::CB_OnIdle() {
  Assert(!destroyed());
  if (destroyed()) {
    return;
  }
  _fIdleCallbackTag = 0;
  DoIdle();
}

void CInfoCache::DoIdle() {
  const auto to_write = static_cast<ptrdiff_t>(_fCrossFileData._fAllToWriteInfoKeys.size());
  const auto could_not = static_cast<ptrdiff_t>(_fCrossFileData._fAllCouldNotWriteInfoKeys.size());
  if (to_write - could_not > kIdleWriteThreshold) {
    WriteToDatabase();
  } else if (to_write != 0) {
    ScheduleWriteToDatabaseTimeout();
  } else {
    TrimTotalInfoCount(_fLimits.kMaxInfoCount);
  }
}

// If there are more than `count` scopes, trims to three quarters of `count`: so trims are rare.
void CInfoCache::TrimTotalInfoCount(ptrdiff_t count) {
  const auto size = static_cast<ptrdiff_t>(_fUsedScopesDict.size());
  if (size <= count) {
    return;
  }
  const ptrdiff_t after_size = count * 3 / 4;
  // The names are collected before anything is dropped: the order of use must not change during the
  // walk.
  CInsertionOrderedDict<Loc, std::vector<Text>> names_by_per_file;
  auto least_used = _fUsedScopesDict.rbegin();
  for (ptrdiff_t i = 0; i < size - after_size; ++i, ++least_used) {
    names_by_per_file.GetOrMake(least_used->first.loc).push_back(least_used->first.scope);
  }
  for (const auto& [loc, scope_name_list] : names_by_per_file) {
    const CPerFilePtr per_file = FindPerFile(loc);
    if (per_file == nullptr) {
      continue;
    }
    if (_fCrossFileData.GetToWriteInfoKeyCount(per_file->loc) != 0) {
      WriteToDatabase({per_file->loc});
    }
    const bool can_remove_per_file = !per_file->fScansDoneNeedsToBeWritten;
    if (kDevelopmentRun() && per_file->disk_mtime > kFileDoesNotExistMtime) {
      Assert(_fCrossFileData.GetToWriteInfoKeyCount(per_file->loc) == 0);
      if (!per_file->fScansDone.empty()) {
        Assert(!Db().ReadScopeDataRecords(per_file->loc, fScanNames, {Text(kModuleScopeName)},
                                          per_file->disk_mtime)
                    .empty());
      }
    }
    DiscardScopeInfo(*per_file, scope_name_list, false, can_remove_per_file);
  }
}

// Drops scopes without unwritten records, least recently used first, until at most `count` are
// left. The spare count is ignored: `count` already leaves room for what is about to be read.
void CInfoCache::TrimNotModified(ptrdiff_t count, ptrdiff_t /*spare_count*/,
                                 const CPerFileEntry* keep_per_file) {
  const auto size = static_cast<ptrdiff_t>(_fUsedScopesDict.size());
  if (size < count) {
    return;
  }
  const ptrdiff_t target = size - count;
  ptrdiff_t removed = 0;
  ptrdiff_t pending = 0;
  CInsertionOrderedDict<Loc, std::vector<Text>> to_examine;
  CInsertionOrderedDict<CPerFilePtr, std::vector<Text>> to_remove;
  std::vector<CScopeRef> without_entry;
  const auto drop_those_without_entry = [&] {
    ForgetShortcuts();
    _fUsedScopesDict.DifferenceUpdate(without_entry);
  };
  for (auto used = _fUsedScopesDict.rbegin(); used != _fUsedScopesDict.rend(); ++used) {
    to_examine.GetOrMake(used->first.loc).push_back(used->first.scope);
    ++pending;
    if (removed + pending < target) {
      continue;
    }
    for (const auto& [loc, scope_list] : to_examine) {
      CPerFilePtr per_file;
      try {
        per_file = GetPerFile(loc, false);
      } catch (...) {
        // The database fails, so nothing is trimmed. The scopes that were reported below are still
        // dropped, so that they are not reported again.
        drop_those_without_entry();
        throw;
      }
      if (per_file == nullptr) {
        // An entry can be removed while scopes of its file stay in the order of use. They hold no
        // memory, but if they stayed, every later read that needs room would meet them again.
        PrintLine(FormatBraces("why {} {}", {loc, scope_list}));
        for (const Text& scope_name : scope_list) {
          without_entry.push_back(CScopeRef{loc, scope_name});
          ++removed;
        }
        continue;
      }
      std::vector<Text>& removable = to_remove.GetOrMake(per_file);
      for (const Text& scope_name : scope_list) {
        if (_fCrossFileData.GetToWriteInfoKeyCount(per_file->loc, scope_name) == 0) {
          removable.push_back(scope_name);
          ++removed;
        }
      }
      if (removable.empty()) {
        to_remove.Erase(per_file);
      }
    }
    to_examine.clear();
    pending = 0;
    if (removed >= target || !_fUsedScopesDict.IsLive(used.slot())) {
      // Enough was found, or a database call emitted a signal whose handler dropped the scope that
      // the walk has reached. What was found so far is dropped.
      break;
    }
  }
  drop_those_without_entry();
  for (const auto& [per_file, scope_list] : to_remove) {
    if (kDevelopmentRun()) {
      const TextSet scope_set(scope_list.begin(), scope_list.end());
      Assert(_fCrossFileData.GetToWriteInfoKeyCount(per_file->loc, &scope_set) == 0);
    }
    DiscardScopeInfo(*per_file, scope_list, false, per_file.get() != keep_per_file);
  }
}

void CInfoCache::DiscardScopeInfo(CPerFileEntry& per_file, const std::vector<Text>& scope_names,
                                  bool keep_flag, bool can_remove_per_file) {
  const Loc loc = per_file.loc;
  const TextSet scope_set(scope_names.begin(), scope_names.end());
  if (kDevelopmentRun() && per_file.disk_mtime > kFileDoesNotExistMtime) {
    const CScopeInfoKeySet in_db = _fCrossFileData.GetInDatabaseInfoKeys(loc, &scope_set);
    const CScopeInfoKeySet to_write = _fCrossFileData.GetToWriteInfoKeys(loc, &scope_set);
    if (!to_write.empty()) {
      PrintLine(FormatBraces("len(to_write) = {}", {to_write.size()}));
      PrintLine(FormatBraces("len(in_db) = {}", {in_db.size()}));
      PrintLine(FormatBraces("to_write = {}", {to_write}));
      PrintLine(FormatBraces("in_db = {}", {in_db}));
    }
  }
  const bool whole_file = scope_names.size() == 1 && scope_names[0] == kWildcardScope;
  bool remove_all = false;
  if (!per_file.clear_db) {
    if (per_file.disk_mtime == kFileDoesNotExistMtime) {
      per_file.fScansDoneNeedsToBeWritten = false;
      remove_all = true;
    } else if (whole_file) {
      remove_all = true;
    } else if (per_file.primary_info_dict.size() <= scope_names.size() &&
               std::all_of(per_file.primary_info_dict.begin(), per_file.primary_info_dict.end(),
                           [&](const auto& entry) { return scope_set.contains(entry.first); })) {
      remove_all = _fCrossFileData.GetToWriteInfoKeyCount(loc) == 0;
    }
  }
  std::vector<Text> names;
  if (whole_file) {
    for (const auto& [scope_name, info] : per_file.primary_info_dict) {
      names.push_back(scope_name);
    }
  } else {
    names = scope_names;
    AddInstanceScopesToDiscard(names);
    if (!remove_all) {
      // The caller did not name the instance scopes. Those with unwritten records stay as long as
      // other records of the file stay: a trim never discards unwritten records.
      const auto added = names.begin() + static_cast<ptrdiff_t>(scope_names.size());
      names.erase(std::remove_if(added, names.end(),
                                 [&](const Text& name) {
                                   return _fCrossFileData.GetToWriteInfoKeyCount(loc, name) != 0;
                                 }),
                  names.end());
    }
  }
  ForgetShortcuts();
  for (const Text& name : names) {
    _fUsedScopesDict.pop(CScopeRefView(loc, name));
  }
  if (remove_all) {
    per_file.ClearAllInfo(false);
    if (can_remove_per_file) {
      _fPerFileDict.Erase(loc);
      fSavableMgr->RemoveLocToWatch(loc);
    }
  } else if (whole_file) {
    per_file.ClearAllInfo(per_file.clear_db);
  } else {
    per_file.DiscardInfoForScannedScopes(names, keep_flag);
  }
}

void CInfoCache::AddInstanceScopesToDiscard(std::vector<Text>& scope_list) {
  TextSet to_add;
  for (const Text& scope : scope_list) {
    if (!IsTopLevelModuleScope(scope)) {
      to_add.insert(GetInstanceNameForClass(scope));
    }
    const auto parent = ParentScopeName(scope);
    if (parent && !IsTopLevelModuleScope(*parent)) {
      to_add.insert(GetInstanceNameForClass(*parent));
    }
  }
  scope_list.insert(scope_list.end(), to_add.begin(), to_add.end());
}

}  // namespace pysource::scopeinfo
