#include "pysource/scopeinfo/filestate/crossfiledata.h"

#include "pysource/host/assertions.h"
#include "pysource/host/symbolinfo/scopenames.h"

namespace pysource::scopeinfo {
namespace {

// The filter, or null when it lets everything through.
const TextSet* EffectiveFilter(const TextSet* names) {
  return names != nullptr && names->contains(kWildcardScope) ? nullptr : names;
}

bool PassesScanFilter(const CScopeInfoKey& key, const TextSet& scan_name_set) {
  const auto scan_name = key.scan_name();
  return scan_name && scan_name_set.contains(*scan_name);
}

// Calls `visit` with each set of keys that the scope filter lets through.
template <class Visit>
void VisitScopeSets(const CKeysByAddress& by_dict, Loc loc, const TextSet* scope_name_set,
                    Visit&& visit) {
  Assert(static_cast<bool>(loc));
  const CKeysByScope* const by_scope = by_dict.Find(loc);
  if (by_scope == nullptr) {
    return;
  }
  scope_name_set = EffectiveFilter(scope_name_set);
  if (scope_name_set == nullptr) {
    for (const CScopeInfoKeySet& key_set : by_scope->Sets()) {
      visit(key_set);
    }
    return;
  }
  for (const Text& name : *scope_name_set) {
    if (const CScopeInfoKeySet* const key_set = by_scope->Find(name)) {
      visit(*key_set);
    }
  }
}

void AddKeysFromSingleScopeKeySet(CScopeInfoKeySet& keys, const CScopeInfoKeySet& key_set,
                                  const TextSet* scan_name_set) {
  for (const CScopeInfoKey& key : key_set) {
    if (scan_name_set == nullptr || PassesScanFilter(key, *scan_name_set)) {
      keys.insert(key);
    }
  }
}

size_t GetSingleScopeKeySetCount(const CScopeInfoKeySet& key_set, const TextSet* scan_name_set) {
  if (scan_name_set == nullptr) {
    return key_set.size();
  }
  size_t count = 0;
  for (const CScopeInfoKey& key : key_set) {
    count += PassesScanFilter(key, *scan_name_set) ? 1 : 0;
  }
  return count;
}

CScopeInfoKeySet GetInfoKeys(const CKeysByAddress& by_dict, Loc loc, const TextSet* scope_name_set,
                             const TextSet* scan_name_set) {
  CScopeInfoKeySet keys;
  scan_name_set = EffectiveFilter(scan_name_set);
  VisitScopeSets(by_dict, loc, scope_name_set, [&](const CScopeInfoKeySet& key_set) {
    AddKeysFromSingleScopeKeySet(keys, key_set, scan_name_set);
  });
  return keys;
}

size_t GetInfoKeyCount(const CKeysByAddress& by_dict, Loc loc, const TextSet* scope_name_set,
                       const TextSet* scan_name_set) {
  size_t count = 0;
  scan_name_set = EffectiveFilter(scan_name_set);
  VisitScopeSets(by_dict, loc, scope_name_set, [&](const CScopeInfoKeySet& key_set) {
    count += GetSingleScopeKeySetCount(key_set, scan_name_set);
  });
  return count;
}

}  // namespace

CCrossFileData::CCrossFileData(CFileStateOwner& info_cache)
    : CDestroyable({}),
      _fInfoCache(info_cache),
      // Connected to no signal: entries are removed with their keys.
      _fDependentScans("_CCrossFileData._fDependentScans", -1, false) {}

CCrossFileData::~CCrossFileData() { destroy(); }

void CCrossFileData::Clear() {
  _fAllInfoKeys.clear();
  _fInfoKeysByScannedLoc.Clear();
  _fInfoKeysByForLoc.Clear();
  _fAllNeedsScanInfoKeys.clear();
  _fNeedsScanInfoKeyByScannedLoc.Clear();
  _fNeedsScanInfoKeyByForLoc.Clear();
  _fAllInDatabaseInfoKeys.clear();
  _fInDatabaseInfoKeysByForLoc.Clear();
  _fAllToWriteInfoKeys.clear();
  _fToWriteInfoKeysByForLoc.Clear();
  _fAllCouldNotWriteInfoKeys.clear();
  _fExistingScopeInfo.clear();
  _fDependentScans.Clear();
  _fEmptyDependencies = 0;
}

void CCrossFileData::AddInfoKey(const CScopeInfoKey& key, const CScopeInfoPtr& info,
                                bool remove_needs_scan) {
  if (_fAllInfoKeys.insert(key)) {
    _fInfoKeysByForLoc.Add(key);
    _fInfoKeysByScannedLoc.Add(key);
  }
  if (remove_needs_scan && _fAllNeedsScanInfoKeys.contains(key)) {
    RemoveNeedsScanInfoKey(key);
  }
  UpdateExistingSourceInfo(key, info);
}

// The maximum number of empty dependencies: a few megabytes, and more than a cache of the usual
// size holds at once.
constexpr size_t kMostEmptyDependencies = 32768;

void CCrossFileData::RemoveInfoKey(const CScopeInfoKey& key) {
  const CScopeInfoKey held = Held(key);
  RemoveNeedsScanInfoKey(held);
  RemoveInDatabaseInfoKey(held);
  RemoveToWriteInfoKey(held);
  RemoveCouldNotWriteInfoKey(held);
  if (_fAllInfoKeys.erase(held)) {
    _fInfoKeysByForLoc.Discard(held);
    _fInfoKeysByScannedLoc.Discard(held);
  }
  _fExistingScopeInfo.Erase(held);
  // Replaced by an entry that depends on no scope, not deleted: no change of a scope finds the key
  // as a dependent any more, while a new record of the key reuses the entry.
  _fDependentScans.AddToCache(held, false);
  // Bounded, since a process that works through a large tree would otherwise keep every key of it.
  if (++_fEmptyDependencies > kMostEmptyDependencies) {
    _fDependentScans.RemoveIf([](const CScopeInfoKey&, bool is_there) { return !is_there; });
    _fEmptyDependencies = 0;
  }
}

bool CCrossFileData::AddNeedsScanInfoKey(const CScopeInfoKey& key) {
  if (!_fAllInfoKeys.contains(key)) {
    return false;
  }
  // Also for a key that is already marked: a stale record must never be written.
  RemoveToWriteInfoKey(key);
  if (!_fAllNeedsScanInfoKeys.insert(key)) {
    return false;
  }
  _fNeedsScanInfoKeyByForLoc.Add(key);
  _fNeedsScanInfoKeyByScannedLoc.Add(key);
  return true;
}

void CCrossFileData::AddNeedsScanInfoKeySet(const CScopeInfoKeySet& key_set) {
  for (const CScopeInfoKey& key : key_set) {
    AddNeedsScanInfoKey(key);
  }
}

void CCrossFileData::RemoveNeedsScanInfoKey(const CScopeInfoKey& key) {
  const CScopeInfoKey held = Held(key);
  if (_fAllNeedsScanInfoKeys.erase(held)) {
    _fNeedsScanInfoKeyByForLoc.Discard(held);
    _fNeedsScanInfoKeyByScannedLoc.Discard(held);
  }
}

void CCrossFileData::InvalidateForScannedLoc(Loc loc, const TextSet* scope_name_set) {
  AddNeedsScanInfoKeySet(GetScannedLocInfoKeys(loc, scope_name_set));
}

CScopeInfoKeySet CCrossFileData::GetInfoKeysByForLoc(Loc loc, const TextSet* scope_name_set,
                                                     const TextSet* scan_name_set) const {
  return GetInfoKeys(_fInfoKeysByForLoc, loc, scope_name_set, scan_name_set);
}

CScopeInfoKeySet CCrossFileData::GetScannedLocInfoKeys(Loc loc, const TextSet* scope_name_set,
                                                       const TextSet* scan_name_set) const {
  return GetInfoKeys(_fInfoKeysByScannedLoc, loc, scope_name_set, scan_name_set);
}

CScopeInfoKeySet CCrossFileData::GetScannedLocInfoKeys(Loc loc, TextView scope_name,
                                                       TextView scan_name) const {
  if (scope_name == kWildcardScope || scan_name == kWildcardScope) {
    const TextSet scope_name_set{Text(scope_name)};
    const TextSet scan_name_set{Text(scan_name)};
    return GetScannedLocInfoKeys(loc, &scope_name_set, &scan_name_set);
  }
  Assert(static_cast<bool>(loc));
  CScopeInfoKeySet keys;
  const CKeysByScope* const by_scope = _fInfoKeysByScannedLoc.Find(loc);
  const CScopeInfoKeySet* const all = by_scope == nullptr ? nullptr : by_scope->Find(scope_name);
  if (all != nullptr) {
    for (const CScopeInfoKey& key : *all) {
      if (key.scan_name() == scan_name) {
        keys.insert(key);
      }
    }
  }
  return keys;
}

CScopeInfoKeySet CCrossFileData::GetScannedLocNeedsScanInfoKeys(
    Loc loc, const TextSet* scope_name_set, const TextSet* scan_name_set) const {
  return GetInfoKeys(_fNeedsScanInfoKeyByScannedLoc, loc, scope_name_set, scan_name_set);
}

void CCrossFileData::AddInDatabaseInfoKey(const CScopeInfoKey& key) {
  Assert(!AssertionsActive() || !_fAllToWriteInfoKeys.contains(key));
  if (_fAllInDatabaseInfoKeys.insert(key)) {
    _fInDatabaseInfoKeysByForLoc.Add(key);
  }
}

void CCrossFileData::RemoveInDatabaseInfoKey(const CScopeInfoKey& key) {
  const CScopeInfoKey held = Held(key);
  if (_fAllInDatabaseInfoKeys.erase(held)) {
    _fInDatabaseInfoKeysByForLoc.Discard(held);
  }
}

CScopeInfoKeySet CCrossFileData::GetInDatabaseInfoKeys(Loc loc, const TextSet* scope_name_set,
                                                       const TextSet* scan_name_set) const {
  return GetInfoKeys(_fInDatabaseInfoKeysByForLoc, loc, scope_name_set, scan_name_set);
}

void CCrossFileData::AddToWriteInfoKey(const CScopeInfoKey& key) {
  Assert(!AssertionsActive() || _fAllInfoKeys.contains(key));
  const CScopeInfoKey held = Held(key);
  RemoveInDatabaseInfoKey(held);
  if (_fAllToWriteInfoKeys.insert(held)) {
    _fToWriteInfoKeysByForLoc.Add(held);
  }
}

void CCrossFileData::RemoveToWriteInfoKey(const CScopeInfoKey& key) {
  const CScopeInfoKey held = Held(key);
  RemoveCouldNotWriteInfoKey(held);
  if (_fAllToWriteInfoKeys.erase(held)) {
    _fToWriteInfoKeysByForLoc.Discard(held);
  }
}

CScopeInfoKeySet CCrossFileData::GetToWriteInfoKeys(Loc loc, const TextSet* scope_name_set,
                                                    const TextSet* scan_name_set) const {
  return GetInfoKeys(_fToWriteInfoKeysByForLoc, loc, scope_name_set, scan_name_set);
}

size_t CCrossFileData::GetToWriteInfoKeyCount(Loc loc, const TextSet* scope_name_set,
                                              const TextSet* scan_name_set) const {
  return GetInfoKeyCount(_fToWriteInfoKeysByForLoc, loc, scope_name_set, scan_name_set);
}

size_t CCrossFileData::GetToWriteInfoKeyCount(Loc loc, TextView scope_name) const {
  Assert(static_cast<bool>(loc));
  if (scope_name == kWildcardScope) {
    return GetToWriteInfoKeyCount(loc);
  }
  const CKeysByScope* const by_scope = _fToWriteInfoKeysByForLoc.Find(loc);
  const CScopeInfoKeySet* const keys = by_scope == nullptr ? nullptr : by_scope->Find(scope_name);
  return keys == nullptr ? 0 : keys->size();
}

void CCrossFileData::AddCouldNotWriteInfoKey(const CScopeInfoKey& key) {
  Assert(!AssertionsActive() || _fAllToWriteInfoKeys.contains(key));
  _fAllCouldNotWriteInfoKeys.insert(key);
}

void CCrossFileData::AddCouldNotWriteInfoKeySet(const CScopeInfoKeySet& key_set) {
  _fAllCouldNotWriteInfoKeys.insert(key_set.begin(), key_set.end());
}

void CCrossFileData::RemoveCouldNotWriteInfoKey(const CScopeInfoKey& key) {
  _fAllCouldNotWriteInfoKeys.erase(key);
}

void CCrossFileData::UpdateExistingSourceInfo(const CScopeInfoKey& key, const CScopeInfoPtr& info) {
  if (info == nullptr) {
    _fExistingScopeInfo.Erase(key);
    return;
  }
  _fExistingScopeInfo.Set(key, info);
  if (info->scope_seen_dict != nullptr) {
    _fDependentScans.AddToCache(key, true, *info->scope_seen_dict);
  }
}

CScopeInfoPtr CCrossFileData::LookupExistingSourceInfo(const CScopeInfoKey& key) const {
  const CScopeInfoPtr* const found = _fExistingScopeInfo.Find(key);
  return found == nullptr ? nullptr : *found;
}

CScopeInfoKeySet CCrossFileData::GetDependentScanKeys(Loc loc,
                                                      const TextSet& scope_name_set) const {
  return _fDependentScans.GetDependentKeys<CScopeInfoKeySet>(loc, scope_name_set);
}

CScopeInfoKeySet CCrossFileData::GetDependentScanKeysOfScope(Loc loc, TextView scope_name) const {
  return _fDependentScans.GetDependentKeysOfScope<CScopeInfoKeySet>(loc, scope_name);
}

void CCrossFileData::CheckInvariants() const {
  _fInfoKeysByScannedLoc.CheckHolds(_fAllInfoKeys);
  _fInfoKeysByForLoc.CheckHolds(_fAllInfoKeys);
  _fNeedsScanInfoKeyByScannedLoc.CheckHolds(_fAllNeedsScanInfoKeys);
  _fNeedsScanInfoKeyByForLoc.CheckHolds(_fAllNeedsScanInfoKeys);
  _fInDatabaseInfoKeysByForLoc.CheckHolds(_fAllInDatabaseInfoKeys);
  _fToWriteInfoKeysByForLoc.CheckHolds(_fAllToWriteInfoKeys);
  for (const CScopeInfoKey& key : _fAllNeedsScanInfoKeys) {
    Assert(_fAllInfoKeys.contains(key), "a key that needs a scan is not known");
    Assert(!_fAllToWriteInfoKeys.contains(key), "a key that needs a scan waits to be written");
  }
  for (const CScopeInfoKey& key : _fAllInDatabaseInfoKeys) {
    Assert(_fAllInfoKeys.contains(key), "a key in the database is not known");
    Assert(!_fAllToWriteInfoKeys.contains(key), "a key in the database waits to be written");
  }
  for (const CScopeInfoKey& key : _fAllToWriteInfoKeys) {
    Assert(_fAllInfoKeys.contains(key), "a key that waits to be written is not known");
  }
  for (const CScopeInfoKey& key : _fAllCouldNotWriteInfoKeys) {
    Assert(_fAllToWriteInfoKeys.contains(key), "a key that was not written does not wait to be");
  }
  for (const auto& [key, info] : _fExistingScopeInfo) {
    Assert(_fAllInfoKeys.contains(key), "a live record has a key that is not known");
    Assert(info != nullptr, "a live record is absent");
  }
  _fDependentScans.AssertValidImpl();
}

CMemoryUse CCrossFileData::MemoryUse() const {
  return {"key sets",
          0,
          {{"known",
            _fAllInfoKeys.MemoryUse() + _fInfoKeysByScannedLoc.MemoryUse() +
                _fInfoKeysByForLoc.MemoryUse(),
            {}},
           {"to be scanned again",
            _fAllNeedsScanInfoKeys.MemoryUse() + _fNeedsScanInfoKeyByScannedLoc.MemoryUse() +
                _fNeedsScanInfoKeyByForLoc.MemoryUse(),
            {}},
           {"in the database",
            _fAllInDatabaseInfoKeys.MemoryUse() + _fInDatabaseInfoKeysByForLoc.MemoryUse(),
            {}},
           {"to be written",
            _fAllToWriteInfoKeys.MemoryUse() + _fToWriteInfoKeysByForLoc.MemoryUse(),
            {}},
           {"could not be written", _fAllCouldNotWriteInfoKeys.MemoryUse(), {}},
           {"what scans looked at",
            _fDependentScans.TableMemoryUse() + _fDependentScans.IndexMemoryUse(),
            {}}}};
}

}  // namespace pysource::scopeinfo
