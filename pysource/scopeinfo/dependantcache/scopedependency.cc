#include "pysource/scopeinfo/dependantcache/scopedependency.h"

#include <algorithm>
#include <exception>
#include <functional>
#include <utility>

#include "pysource/host/assertions.h"
#include "pysource/host/infocachebase.h"
#include "pysource/host/logger.h"
#include "pysource/host/memoryuse.h"
#include "pysource/host/repr.h"
#include "pysource/host/symbolinfo/scopenames.h"

namespace pysource::scopeinfo {

bool CDependedScopes::Contains(Loc loc, TextView scope_name) const {
  return std::any_of(begin(), end(), [&](const CScopeRef& ref) {
    return ref.loc == loc && ref.scope == scope_name;
  });
}

CScopeDependency::CScopeDependency(std::optional<Text> name, int64_t cache_size,
                                   bool watch_for_changes)
    : fName(std::move(name)), _fTrimCount(cache_size) {
  if (!watch_for_changes) {
    return;
  }
  _fClassConnList.push_back(class_connect(kImportResolutionChanged,
                                          // Import resolution can affect any value.
                                          velk::NoArgCallback([this] { Clear(); })));
  _fClassConnList.push_back(class_connect(
      kScopeLogicalsModified, [this](const CPySourceAnalysis& ana, const TextSet& scope_names) {
        InvalidateScopes(ana.fLocation, scope_names);
      }));
  _fClassConnList.push_back(
      class_connect(kScopesModified, [this](const CInfoCacheBase&, const CChangedDict& changed) {
        CB_ScopeInfoModified(changed);
      }));
}

CScopeDependency::~CScopeDependency() {
  for (const ConnectionId id : _fClassConnList) {
    class_disconnect(id);
  }
}

void CScopeDependency::ClearAtEnd() noexcept {
  try {
    Clear();
  } catch (const std::exception& error) {
    // A destructor cannot pass on an exception of the main loop.
    CriticalLog("a cache of derived values could not cancel its trim: %s", error.what());
  }
}

void CScopeDependency::destroy() {
  for (const ConnectionId id : std::exchange(_fClassConnList, {})) {
    class_disconnect(id);
  }
  Clear();
}

void CScopeDependency::CB_ScopeInfoModified(const CChangedDict& changed) {
  for (const auto& [loc, scope_names] : changed) {
    InvalidateScopes(loc, *scope_names);
  }
}

void CScopeDependency::InvalidateScopes(Loc loc, const TextSet& scope_names) {
  AssertValid();
  ScopeDict* const scope_dict = _fCacheKeysForLoc.Find(loc);
  if (scope_dict != nullptr) {
    if (scope_names.contains(kWildcardScope)) {
      ScopeDict taken = std::move(*scope_dict);
      _fCacheKeysForLoc.Erase(loc);
      for (const auto& [name, scope] : taken) {
        scope->indexed = false;
        // An entry that depends on several of the scopes is logged with each of them.
        LogRemovalOf(scope->entries);
      }
      for (const auto& [name, scope] : taken) {
        TakeEntries(scope->entries);
      }
    } else {
      for (const Text& name : scope_names) {
        InvalidateSingleScopeKey(name, loc);
      }
    }
  }
  AssertValid();
}

void CScopeDependency::InvalidateSingleScopeKey(TextView scope_name, Loc loc) {
  // Looked up again for each name: purging for one name may have removed the file's dictionary.
  ScopeDict* const scope_dict = _fCacheKeysForLoc.Find(loc);
  if (scope_dict == nullptr) {
    return;
  }
  const auto scope = scope_dict->Pop(scope_name);
  if (!scope) {
    return;
  }
  // The file is removed with its last scope, also when that is the one just taken out.
  if (scope_dict->empty()) {
    _fCacheKeysForLoc.Erase(loc);
  }
  (*scope)->indexed = false;
  ScopeKeysDifferenceUpdate((*scope)->entries);
}

void CScopeDependency::ScopeKeysDifferenceUpdate(const CIdSet& entries) {
  LogRemovalOf(entries);
  TakeEntries(entries);
}

void CScopeDependency::LogRemovalOf(const CIdSet& entries) const {
  if (fLogIfInKeyRepr) {
    for (const EntryId entry : entries) {
      LogKey("Deleting key from {} cache: {}", entry);
    }
  }
}

void CScopeDependency::TakeEntries(const CIdSet& entries) {
  for (const EntryId entry : entries) {
    // An entry that depended on several of the scopes may already be gone.
    if (IsLive(entry)) {
      TakeEntry(entry);
    }
  }
}

void CScopeDependency::DiscardKeysFromKeysForLoc(EntryId entry, const CDependedScopes& scopes) {
  for (CDependedScope* const scope : scopes._fScopes) {
    if (!scope->indexed) {
      continue;
    }
    scope->entries.Erase(entry);
    if (scope->entries.empty()) {
      DropScope(*scope);
    }
  }
}

void CScopeDependency::DropScope(const CDependedScope& scope) {
  const Loc loc = scope.ref.loc;
  ScopeDict* const scope_dict = _fCacheKeysForLoc.Find(loc);
  scope_dict->Erase(TextView(scope.ref.scope));
  if (scope_dict->empty()) {
    _fCacheKeysForLoc.Erase(loc);
  }
}

std::vector<CScopeDependency::EntryId> CScopeDependency::DependentEntries(
    Loc loc, std::span<const TextView> scope_names) const {
  std::vector<EntryId> entries;
  const ScopeDict* const scope_dict = _fCacheKeysForLoc.Find(loc);
  if (scope_dict == nullptr) {
    return entries;
  }
  const auto add = [&entries](const CDependedScope& scope) {
    entries.insert(entries.end(), scope.entries.begin(), scope.entries.end());
  };
  if (std::find(scope_names.begin(), scope_names.end(), kWildcardScope) != scope_names.end()) {
    for (const auto& [name, scope] : *scope_dict) {
      add(*scope);
    }
    return entries;
  }
  for (const TextView name : scope_names) {
    if (const auto* const scope = scope_dict->Find(name)) {
      add(**scope);
    }
  }
  // A value that depends on a whole file depends on each of its scopes.
  if (const auto* const scope = scope_dict->Find(kWildcardScope)) {
    add(**scope);
  }
  return entries;
}

void CScopeDependency::Trim(int64_t count) {
  const int64_t excess = static_cast<int64_t>(Size()) - count;
  CIdSet to_remove;
  VisitLeastUsedFirst([&](EntryId entry) {
    // Tested after adding: a trim removes one entry even if the cache is within the count, so that
    // repeated trims always make room.
    to_remove.Add(entry);
    return static_cast<int64_t>(to_remove.size()) < excess;
  });
  ScopeKeysDifferenceUpdate(to_remove);
}

void CScopeDependency::ScheduleIdleTrim() {
  if (_fIdleTrimTag == 0 && _fTrimCount > 0 && static_cast<int64_t>(Size()) > _fTrimCount) {
    _fIdleTrimTag = velk::idle_add([this] { return CB_IdleTrim(); }, velk::PRIORITY_LOW_IDLE);
  }
}

bool CScopeDependency::CB_IdleTrim() {
  _fIdleTrimTag = 0;
  if (_fTrimCount > 0) {
    // To three quarters, so that not every store triggers a trim.
    Trim(_fTrimCount * 3 / 4);
  }
  return false;
}

void CScopeDependency::Clear() {
  if (fLogIfInKeyRepr) {
    std::vector<EntryId> entries;
    VisitLeastUsedFirst([&](EntryId entry) {
      entries.push_back(entry);
      return true;
    });
    // In the order of the dictionary: the most recently used first.
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry) {
      LogKey("Clearing {} cache that contains {}", *entry);
    }
  }
  // The entries are destroyed while the scopes that they point to still exist.
  auto scopes = std::exchange(_fCacheKeysForLoc, {});
  ClearEntries();
  scopes.clear();
  if (_fIdleTrimTag != 0) {
    velk::idle_remove(_fIdleTrimTag);
    _fIdleTrimTag = 0;
  }
}

CDependedScope* CScopeDependency::FindScope(const CScopeRefView& ref) const {
  const ScopeDict* const scope_dict = _fCacheKeysForLoc.Find(ref.loc);
  const auto* const scope = scope_dict == nullptr ? nullptr : scope_dict->Find(ref.scope);
  return scope == nullptr ? nullptr : scope->get();
}

CDependedScope& CScopeDependency::GetOrMakeScope(const CScopeRefView& ref) {
  ScopeDict& scope_dict = _fCacheKeysForLoc.GetOrMake(ref.loc);
  if (const auto* const known = scope_dict.Find(ref.scope)) {
    return **known;
  }
  auto scope = std::make_unique<CDependedScope>(CScopeRef{ref.loc, Text(ref.scope)});
  const TextView name = scope->ref.scope;
  return *scope_dict.Add(name, std::move(scope));
}

bool CScopeDependency::SameSet(const CDependedScopes& scopes, std::vector<CDependedScope*> other) {
  std::sort(other.begin(), other.end(), std::less<>());
  other.erase(std::unique(other.begin(), other.end()), other.end());
  return scopes._fScopes == other;
}

void CScopeDependency::ReplaceScopes(EntryId entry, CDependedScopes& scopes,
                                     CDependedScopes fresh) {
  auto& now = fresh._fScopes;
  std::sort(now.begin(), now.end(), std::less<>());
  now.erase(std::unique(now.begin(), now.end()), now.end());
  now.shrink_to_fit();
  for (CDependedScope* const scope : now) {
    scope->entries.Add(entry);
  }
  CDependedScopes dropped;
  std::set_difference(scopes._fScopes.begin(), scopes._fScopes.end(), now.begin(), now.end(),
                      std::back_inserter(dropped._fScopes), std::less<>());
  scopes = std::move(fresh);
  DiscardKeysFromKeysForLoc(entry, dropped);
}

void CScopeDependency::AssertValidImpl() const {
  VisitLeastUsedFirst([&](EntryId entry) {
    for (const CScopeRef& ref : ScopesOf(entry)) {
      const ScopeDict* const scope_dict = _fCacheKeysForLoc.Find(ref.loc);
      if (scope_dict == nullptr) {
        Assert(false, FormatBraces("{} cache -- no loc_dict: {}", {NameForLog(), ref}));
        continue;
      }
      const auto* const scope = scope_dict->Find(TextView(ref.scope));
      Assert(scope != nullptr && (*scope)->entries.Contains(entry));
    }
    return true;
  });
  for (const auto& [loc, scope_dict] : _fCacheKeysForLoc) {
    Assert(!scope_dict.empty());
    for (const auto& [name, scope] : scope_dict) {
      Assert(!scope->entries.empty());
      for (const EntryId entry : scope->entries) {
        Assert(IsLive(entry) && ScopesOf(entry).Contains(loc, name));
      }
    }
  }
}

size_t CScopeDependency::IndexMemoryUse() const {
  size_t bytes = _fCacheKeysForLoc.MemoryUse();
  for (const auto& [loc, scope_dict] : _fCacheKeysForLoc) {
    bytes += scope_dict.MemoryUse();
    for (const auto& [name, scope] : scope_dict) {
      bytes += sizeof(CDependedScope) + HeapUse(scope->ref.scope) + scope->entries.MemoryUse();
    }
  }
  return bytes;
}

}  // namespace pysource::scopeinfo
