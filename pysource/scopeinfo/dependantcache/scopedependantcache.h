// A cache of values that were computed from scopes of source code, purged when those scopes change.
#pragma once

#include <functional>
#include <optional>
#include <unordered_set>
#include <utility>
#include <vector>

#include "pysource/host/logger.h"
#include "pysource/host/repr.h"
#include "pysource/host/usageordereddict.h"
#include "pysource/scopeinfo/dependantcache/scopedependency.h"

namespace pysource::scopeinfo {

// Stores any value under any key, together with the scopes that were read to compute it:
//
//   CScopeDependantCache<Text, Answer> answers("answers", 1000);
//   answers.AddToCache("a.b", answer, scopes_read);      // scopes_read: any range of CScopeRef
//   if (auto [found, scopes] = answers.LookupInCache("a.b"); found != nullptr) use(*found);
//
// A value is removed when one of its scopes changes (the cache handles the signals scopes-modified,
// scope-logicals-modified and import-resolution-changed), or in idle time when there are more than
// `cache_size` values and it is among the least recently used ones. A look-up costs one hash access
// and a move in the usage order; the cost of a purge is proportional to the number of purged
// values.
//
// The cache does not know how a value is computed, and never computes one again. Not copyable; it
// disconnects from the signals when it is destroyed.
//
// REQUIRES: only the main thread uses it.
template <class Key, class Value, class Hash = std::hash<Key>, class Equal = std::equal_to<>>
class CScopeDependantCache final : public CScopeDependency {
 public:
  using KeySet = std::unordered_set<Key, Hash, Equal>;

  // The value, or null, and the scopes that it depends on. Both are valid until the next store or
  // purge.
  struct Found {
    Value* value;
    const CDependedScopes& scopes;
  };

  // The name is used in log lines. With a `cache_size` of zero or less the cache is never trimmed
  // unless Trim is called. Without `watch_for_changes` it handles no signals: for owners that
  // remove entries themselves.
  CScopeDependantCache(std::optional<Text> name, int64_t cache_size, bool watch_for_changes = true)
      : CScopeDependency(std::move(name), cache_size, watch_for_changes) {}
  ~CScopeDependantCache() override { ClearAtEnd(); }

  // Stores the value with the scopes that it depends on: a range of CScopeRef, or a dictionary with
  // such keys. If the same value with the same scopes is already there, this only counts as a use.
  template <class Scopes = std::initializer_list<CScopeRef>>
  void AddToCache(Key key, Value value, const Scopes& scopes_seen = {}) {
    AssertValid();
    auto slot = _fCache.SlotOf(key);
    const bool is_new = slot == Dict::kNoSlot;
    if (!is_new) {
      _fCache.MarkUsed(slot);
      const Entry& old = _fCache.At(slot).second;
      if (old.value == value && SameScopes(old.scopes, scopes_seen, RefOf())) {
        return;
      }
    }
    PrintIfLogged("Setting key in {} cache: {}", key);
    fModified = true;
    // Before the new entry is added, which may move the others: `scopes_seen` can be the scopes of
    // another entry, as returned by LookupInCache.
    CDependedScopes fresh = CollectScopes(scopes_seen, RefOf());
    if (is_new) {
      slot = _fCache.Add(std::move(key), Entry{std::move(value), {}});
    } else {
      std::swap(_fCache.ValueAt(slot).value, value);
    }
    ReplaceScopes(slot, _fCache.ValueAt(slot).scopes, std::move(fresh));
    // Replacing an entry schedules no trim: the cache has not grown.
    if (is_new) {
      ScheduleIdleTrim();
    }
    AssertValid();
  }

  // The value of the key and its scopes; a null value and no scopes if the key is unknown. Counts
  // as a use. Makes no allocation.
  template <class K>
  Found LookupInCache(const K& key) {
    const auto slot = _fCache.SlotOf(key);
    if (slot == Dict::kNoSlot) {
      static const CDependedScopes kNoScopes;
      ++fMisses;
      return {nullptr, kNoScopes};
    }
    Value& value = Use(slot);
    return {&value, _fCache.At(slot).second.scopes};
  }

  // ---- Entries by number, for owners that inspect the key of an entry before they use the entry.
  // REQUIRES: a number is used only until the next store or purge.

  // The number of the key's entry, or kNoEntry. Counts neither as a use nor as a miss.
  template <class K>
  EntryId EntryOf(const K& key) const {
    return _fCache.SlotOf(key);
  }
  const Key& KeyAt(EntryId entry) const { return _fCache.At(entry).first; }
  // The value, which counts as a use.
  Value& Use(EntryId entry) {
    ++fHits;
    _fCache.MarkUsed(entry);
    return _fCache.ValueAt(entry).value;
  }

  // Calls `visit(key, value)` for each entry, the least recently used first.
  template <class Function>
  void Visit(Function visit) const {
    for (auto it = _fCache.rbegin(); it != _fCache.rend(); ++it) {
      visit(it->first, it->second.value);
    }
  }

  // The keys of the values that depend on one of these scopes of the file, or on the whole file
  // (the scope "*"). With kWildcardScope among the names: on any scope of the file. Returns a new
  // set, whose type the caller can choose.
  template <class Set = KeySet>
  Set GetDependentKeys(Loc loc, const TextSet& scope_name_set) const {
    const std::vector<TextView> names(scope_name_set.begin(), scope_name_set.end());
    return KeysOf<Set>(DependentEntries(loc, names));
  }
  // The same for one scope.
  template <class Set = KeySet>
  Set GetDependentKeysOfScope(Loc loc, TextView scope_name) const {
    return KeysOf<Set>(DependentEntries(loc, {&scope_name, 1}));
  }

  // Removes the entries for which `predicate(key, value)` is true.
  template <class Predicate>
  void RemoveIf(Predicate predicate) {
    std::vector<EntryId> entries;
    VisitLeastUsedFirst([&](EntryId entry) {
      const auto& [key, stored] = _fCache.At(entry);
      if (predicate(key, stored.value)) {
        entries.push_back(entry);
      }
      return true;
    });
    for (const EntryId entry : entries) {
      TakeEntry(entry);
    }
  }

  // The bytes of the table and of the lists of scopes, without what keys and values allocate.
  size_t TableMemoryUse() const {
    size_t bytes = _fCache.MemoryUse();
    for (const auto& [key, entry] : _fCache) {
      bytes += entry.scopes.MemoryUse();
    }
    return bytes;
  }

  template <class K>
  bool Contains(const K& key) const {
    return _fCache.Contains(key);
  }
  size_t Size() const override { return _fCache.size(); }
  // The keys, most recently used first.
  std::vector<Key> Keys() const { return _fCache.keys(); }

 private:
  struct Entry {
    Value value;
    CDependedScopes scopes;
  };
  using Dict = CUsageOrderedDict<Key, Entry, Hash, Equal>;

  struct RefOf {
    CScopeRefView operator()(const CScopeRef& ref) const { return ref; }
    template <class DictEntry>
    CScopeRefView operator()(const DictEntry& entry) const {
      return entry.first;
    }
  };

  template <class Set>
  Set KeysOf(const std::vector<EntryId>& entries) const {
    Set keys;
    for (const EntryId entry : entries) {
      keys.insert(_fCache.At(entry).first);
    }
    return keys;
  }

  bool IsLive(EntryId entry) const override { return _fCache.IsLive(entry); }
  void VisitLeastUsedFirst(const std::function<bool(EntryId)>& visit) const override {
    for (auto it = _fCache.rbegin(); it != _fCache.rend(); ++it) {
      if (!visit(it.slot())) {
        return;
      }
    }
  }
  const CDependedScopes& ScopesOf(EntryId entry) const override {
    return _fCache.At(entry).second.scopes;
  }
  void LogKey(TextView format, EntryId entry) const override {
    PrintIfLogged(format, _fCache.At(entry).first);
  }
  void PrintIfLogged(TextView format, const Key& key) const {
    if (fLogIfInKeyRepr && LogsKey(Repr(key))) {
      PrintLine(FormatBraces(format, {NameForLog(), key}));
    }
  }
  void TakeEntry(EntryId entry) override {
    const auto taken = _fCache.TakeAt(entry);
    DiscardKeysFromKeysForLoc(entry, taken.second.scopes);
  }
  void ClearEntries() override { _fCache.clear(); }

  Dict _fCache;
};

}  // namespace pysource::scopeinfo
