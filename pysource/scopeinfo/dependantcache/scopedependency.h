// The part of a derived-value cache that does not depend on the types of its keys and values: which
// entries depend on which scopes, when to purge them, when to trim.
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

// A scope that entries depend on, with the numbers of those entries. Exists while at least one
// entry depends on it. Entries point to it instead of repeating the scope.
struct CDependedScope {
  explicit CDependedScope(CScopeRef scope) : ref(std::move(scope)) {}
  const CScopeRef ref;
  CIdSet entries;
  // False once it was taken out of the index to be purged. Entries that still point to it are about
  // to be removed, and do not look for it in the index.
  bool indexed = true;
};

// The scopes that one entry depends on: an immutable set, as a range of CScopeRef.
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
  std::vector<CDependedScope*> _fScopes;  // sorted by address, without duplicates
};

// The reverse index, from scopes to entries, and the signals and the idle call that purge and trim
// entries. Identifies entries by number; the derived class stores them.
//
// What always holds between operations, and what AssertValidImpl asserts: an entry is listed at a
// scope exactly when the scope is listed at the entry, and the index has no scope and no file
// without entries.
class CScopeDependency {
 public:
  using EntryId = uint32_t;
  static constexpr EntryId kNoEntry = UINT32_MAX;

  CScopeDependency(const CScopeDependency&) = delete;
  CScopeDependency& operator=(const CScopeDependency&) = delete;

  // Purges every value that depends on one of these scopes of the file; kWildcardScope among the
  // names stands for all scopes. Otherwise a value that depends on the scope "*" itself stays: a
  // change of one scope is not a change of the whole file. (GetDependentKeys does report such
  // values; the two differ on purpose.) The cost is proportional to the number of purged values.
  void InvalidateScopes(Loc loc, const TextSet& scope_names);

  // Removes the least recently used entries until at most `count` are left, but at least one entry
  // in any case.
  void Trim(int64_t count);

  // Removes all values and cancels a pending trim.
  void Clear();

  // Disconnects from the class-wide signals and clears. A second call does nothing more.
  void destroy();

  // The number of entries.
  virtual size_t Size() const = 0;

  // If _fEnableValidityChecks is set, asserts what always holds; otherwise costs nothing.
  void AssertValid() const {
    if (_fEnableValidityChecks) [[unlikely]] {
      AssertValidImpl();
    }
  }
  void AssertValidImpl() const;

  // The name of the cache in log lines; most caches have none.
  const std::optional<Text> fName;
  // Set by every store that changes an entry, never cleared here.
  bool fModified = false;
  // The number of look-ups that found their key, and of those that did not.
  uint64_t fHits = 0;
  uint64_t fMisses = 0;
  // To be set in a debugger: operations on keys whose text form contains it print a line.
  std::optional<Text> fLogIfInKeyRepr;
  // Whether AssertValid checks anything.
  bool _fEnableValidityChecks = false;

  // The bytes of the index of scopes.
  size_t IndexMemoryUse() const;

 protected:
  // With a `cache_size` of zero or less, no trim is ever scheduled.
  CScopeDependency(std::optional<Text> name, int64_t cache_size, bool watch_for_changes);
  virtual ~CScopeDependency();

  // ---- The entries, which the derived class stores.
  virtual bool IsLive(EntryId entry) const = 0;
  // Visits every entry, the least recently used first, until `visit` returns false.
  virtual void VisitLeastUsedFirst(const std::function<bool(EntryId)>& visit) const = 0;
  virtual const CDependedScopes& ScopesOf(EntryId entry) const = 0;
  // If the key is to be logged, prints `format` with the name of the cache and the key filled in.
  virtual void LogKey(TextView format, EntryId entry) const = 0;
  // Removes the entry and passes the scopes that it depended on to DiscardKeysFromKeysForLoc.
  // REQUIRES: an implementation destroys the value after that, since code that the destruction
  // triggers must find the entry gone and the index consistent.
  virtual void TakeEntry(EntryId entry) = 0;
  virtual void ClearEntries() = 0;

  // ---- For the derived class.

  // The scopes in the index for the elements of the range, each of which `ref_of` turns into a
  // CScopeRefView. Adds those that are missing, still without an entry.
  // REQUIRES: the caller passes the result to ReplaceScopes.
  template <class Range, class RefOf>
  CDependedScopes CollectScopes(const Range& range, RefOf ref_of) {
    CDependedScopes fresh;
    for (const auto& each : range) {
      fresh._fScopes.push_back(&GetOrMakeScope(ref_of(each)));
    }
    return fresh;
  }
  // Replaces `scopes`, the scopes of the entry, by those that were collected, and takes the entry
  // off the scopes that it no longer depends on.
  void ReplaceScopes(EntryId entry, CDependedScopes& scopes, CDependedScopes fresh);
  // Takes the entry off the scopes, and removes scopes that have no entry left.
  void DiscardKeysFromKeysForLoc(EntryId entry, const CDependedScopes& scopes);
  // Whether `scopes` is exactly the set of the scopes in the range.
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

  // The numbers of the entries that depend on one of the scopes of the file, or on the whole file.
  std::vector<EntryId> DependentEntries(Loc loc, std::span<const TextView> scope_names) const;

  void ScheduleIdleTrim();
  // Clear for the destructor of the derived class, which stores the entries.
  void ClearAtEnd() noexcept;
  bool LogsKey(const Text& repr) const {
    return fLogIfInKeyRepr && repr.find(*fLogIfInKeyRepr) != Text::npos;
  }
  Text NameForLog() const { return fName.value_or("None"); }

 private:
  // By scope name; the key is a view of the name in the value.
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
