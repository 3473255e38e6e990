// The part of a derived-value cache that does not depend on its keys and values: which entries rest
// on which scopes, when to purge them, when to trim.
#pragma once

#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "pysource/host/analysismgr.h"
#include "pysource/host/idset.h"
#include "pysource/host/ordereddict.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/text.h"
#include "pysource/host/velk.h"

namespace pysource::scopeinfo {

// One scope that entries rest on, with the numbers of those entries. Lives while at least one rests
// on it. Entries point to it rather than repeat the scope.
struct CDependedScope {
  explicit CDependedScope(CScopeRef scope) : ref(std::move(scope)) {}
  const CScopeRef ref;
  CIdSet entries;
  // False from the moment that it was taken out of the index to be purged: the entries that still
  // point to it are about to go, and do not look for it in the index.
  bool indexed = true;
};

// The scopes that one entry rests on: an immutable set, as a range of CScopeRef.
class CDependedScopes {
 public:
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = CScopeRef;
    using difference_type = std::ptrdiff_t;
    using pointer = const CScopeRef*;
    using reference = const CScopeRef&;
    Iterator() = default;
    explicit Iterator(CDependedScope* const* at) : _fAt(at) {}
    reference operator*() const { return (*_fAt)->ref; }
    pointer operator->() const { return &(*_fAt)->ref; }
    Iterator& operator++() {
      ++_fAt;
      return *this;
    }
    Iterator operator++(int) { return Iterator(_fAt++); }
    friend bool operator==(Iterator a, Iterator b) { return a._fAt == b._fAt; }

   private:
    CDependedScope* const* _fAt = nullptr;
  };

  size_t size() const noexcept { return _fScopes.size(); }
  bool empty() const noexcept { return _fScopes.empty(); }
  Iterator begin() const { return Iterator(_fScopes.data()); }
  Iterator end() const { return Iterator(_fScopes.data() + _fScopes.size()); }
  bool Contains(Loc loc, TextView scope_name) const;
  size_t MemoryUse() const noexcept { return _fScopes.capacity() * sizeof(void*); }

 private:
  friend class CScopeDependency;
  std::vector<CDependedScope*> _fScopes;  // ascending by address, each once
};

// The reverse index and what moves it. Entries are known by number; the derived class keeps them.
//
// What always holds between operations: an entry is among those of a scope exactly when the scope
// is among those of the entry, and no scope and no file without entries stays in the index.
// AssertValidImpl asserts it.
class CScopeDependency {
 public:
  using EntryId = uint32_t;
  static constexpr EntryId kNoEntry = UINT32_MAX;

  CScopeDependency(const CScopeDependency&) = delete;
  CScopeDependency& operator=(const CScopeDependency&) = delete;

  // Purges every value that rests on one of these scopes of the file; kWildcardScope among the
  // names stands for all scopes. By name, values that rest on the scope "*" itself are not reached:
  // a change of one scope is no change of the whole file. (GetDependentKeys does report them; the
  // two differ on purpose.) Costs in proportion to what is purged.
  void InvalidateScopes(Loc loc, const TextSet& scope_names);

  // Removes the least recently used entries until no more than `count` are left, and at least one
  // in any case.
  void Trim(int64_t count);

  // Removes all values and cancels a pending trim.
  void Clear();

  // Disconnects from the class-wide signals and clears. A second call does nothing more.
  void destroy();

  // How many entries there are.
  virtual size_t Size() const = 0;

  // Asserts what always holds when _fEnableValidityChecks is set; costs nothing otherwise.
  void AssertValid() const {
    if (_fEnableValidityChecks) [[unlikely]] {
      AssertValidImpl();
    }
  }
  void AssertValidImpl() const;

  // For a person who looks inside; absent for most.
  const std::optional<Text> fName;
  // Set by every store that changes an entry, never cleared here.
  bool fModified = false;
  // Look-ups that found their key, and those that did not, ever since.
  uint64_t fHits = 0;
  uint64_t fMisses = 0;
  // When a debugger sets it: operations on keys whose text form contains it print a line.
  std::optional<Text> fLogIfInKeyRepr;
  // Switches the self-check on.
  bool _fEnableValidityChecks = false;

  // Bytes of the index of scopes.
  size_t IndexMemoryUse() const;

 protected:
  // `cache_size` of zero or less means that nothing is trimmed on its own.
  CScopeDependency(std::optional<Text> name, int64_t cache_size, bool watch_for_changes);
  virtual ~CScopeDependency();

  // ---- What the derived class keeps.
  virtual bool IsLive(EntryId entry) const = 0;
  // Every entry, the least recently used first, until `visit` returns false.
  virtual void VisitLeastUsedFirst(const std::function<bool(EntryId)>& visit) const = 0;
  virtual const CDependedScopes& ScopesOf(EntryId entry) const = 0;
  // Prints `format`, filled in with the name of the cache and the key, if the key is logged.
  virtual void LogKey(TextView format, EntryId entry) const = 0;
  // Removes the entry and hands the scopes that it rested on to DiscardKeysFromKeysForLoc. The
  // value ends only after that: what its destruction sets off must find the entry gone and the
  // index in order.
  virtual void TakeEntry(EntryId entry) = 0;
  virtual void ClearEntries() = 0;

  // ---- What it uses.

  // The scopes of the index for what is in the range, whose elements `ref_of` turns into
  // CScopeRefView. New ones among them have no entry yet: ReplaceScopes must follow.
  template <class Range, class RefOf>
  CDependedScopes CollectScopes(const Range& range, RefOf ref_of) {
    CDependedScopes fresh;
    for (const auto& each : range) {
      fresh._fScopes.push_back(&GetOrMakeScope(ref_of(each)));
    }
    return fresh;
  }
  // Makes `scopes`, those of the entry, what was collected, and takes the entry out of the scopes
  // that it no longer rests on.
  void ReplaceScopes(EntryId entry, CDependedScopes& scopes, CDependedScopes fresh);
  // Takes the entry out of the scopes; those that are left without entries go.
  void DiscardKeysFromKeysForLoc(EntryId entry, const CDependedScopes& scopes);
  // Whether `scopes` is exactly the set of what is in the range.
  template <class Range, class RefOf>
  bool SameScopes(const CDependedScopes& scopes, const Range& range, RefOf ref_of) const {
    std::vector<CDependedScope*> found;
    for (const auto& each : range) {
      CDependedScope* const scope = FindScope(ref_of(each));
      if (scope == nullptr) {
        return false;
      }
      found.push_back(scope);
    }
    return SameSet(scopes, std::move(found));
  }

  // The numbers of the entries that rest on one of the scopes of the file, or on the file as a
  // whole.
  std::vector<EntryId> DependentEntries(Loc loc, std::span<const TextView> scope_names) const;

  void ScheduleIdleTrim();
  // Clear, for the destructor of who keeps the entries.
  void ClearAtEnd() noexcept;
  bool LogsKey(const Text& repr) const {
    return fLogIfInKeyRepr && repr.find(*fLogIfInKeyRepr) != Text::npos;
  }
  Text NameForLog() const { return fName.value_or("None"); }

 private:
  // By name; the key is a view of the scope's own text.
  using ScopeDict = CInsertionOrderedDict<TextView, std::unique_ptr<CDependedScope>, TextHash>;

  CDependedScope* FindScope(const CScopeRefView& ref) const;
  CDependedScope& GetOrMakeScope(const CScopeRefView& ref);
  static bool SameSet(const CDependedScopes& scopes, std::vector<CDependedScope*> other);
  void InvalidateSingleScopeKey(TextView scope_name, Loc loc);
  void ScopeKeysDifferenceUpdate(const CIdSet& entries);
  void LogRemovalOf(const CIdSet& entries) const;
  void TakeEntries(const CIdSet& entries);
  void DropScope(const CDependedScope& scope);
  bool CB_IdleTrim();
  void CB_ScopeInfoModified(const CChangedDict& changed);

  const int64_t _fTrimCount;
  velk::Tag _fIdleTrimTag = 0;  // of the pending idle trim, 0 for none
  CInsertionOrderedDict<Loc, ScopeDict> _fCacheKeysForLoc;
  std::vector<ConnectionId> _fClassConnList;
};

}  // namespace pysource::scopeinfo
