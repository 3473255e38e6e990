// The dictionary of a record: from a symbol name to what is known about it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <new>
#include <optional>
#include <unordered_set>
#include <utility>

#include "pysource/host/arena.h"
#include "pysource/host/hashindex.h"
#include "pysource/host/text.h"
#include "pysource/host/words.h"

namespace pysource {

// From text to bytes, in the order in which the names were first stored; replacing a value keeps
// the place. Names and values are views into an arena, which the dictionaries of one record share,
// so a decoded record is one block of memory and reading it copies nothing. A view stays valid as
// long as the dictionary lives, also when its name gets another value.
//
// A copy shares the memory until one of the two changes; the one that changes first makes its own
// items: most copies of records are never changed. A copy never stores into the memory that it
// shares, so a record that is copied again and again does not grow.
//
// A look-up is a binary search while the names were stored in ascending order, as a decoder does.
// Otherwise it walks over the names, or uses a hash table if there are more than a few.
//
// REQUIRES: dictionaries that share memory are used by one thread at a time, like the arena.
class CStrDict {
 public:
  using key_type = TextView;
  using mapped_type = BytesView;
  // Named like the members of a pair, so that `for (auto [name, ibytes] : dict)` reads as usual.
  struct Item {
    TextView first;
    BytesView second;
  };

  CStrDict() noexcept = default;
  CStrDict(std::initializer_list<std::pair<TextView, BytesView>> items);
  // An empty dictionary that stores into `arena`, with room for `capacity` names.
  CStrDict(CArena arena, size_t capacity);
  // The same, with the items in `room`.
  // REQUIRES: `room` was allocated from the arena and has room for `capacity` items.
  CStrDict(CArena arena, Item* room, size_t capacity) noexcept
      : _fArena(std::move(arena)), _fItems(room), _fCapacity(static_cast<uint32_t>(capacity)) {}
  CStrDict(const CStrDict& other);
  CStrDict(CStrDict&& other) noexcept { Swap(other); }
  CStrDict& operator=(CStrDict other) noexcept {
    Swap(other);
    return *this;
  }
  ~CStrDict() = default;

  size_t size() const noexcept { return _fSize; }
  bool empty() const noexcept { return _fSize == 0; }
  const Item* begin() const noexcept { return _fItems; }
  const Item* end() const noexcept { return _fItems + _fSize; }

  std::optional<BytesView> Get(TextView name) const;
  bool Contains(TextView name) const { return Find(name) != kNone; }
  // Whether the items are in ascending order of their names.
  bool IsAscending() const noexcept { return _fAscending; }

  // Stores copies of the name and the value.
  void Set(TextView name, BytesView ibytes);
  // Stores the views as they are.
  // REQUIRES: both point into the arena that this dictionary was made with.
  void SetStored(TextView name, BytesView ibytes) {
    // The usual case of a decoder: the names ascend and there is room. Then the name is new, and
    // there is no index to update. Shared items are no obstacle: no copy uses the room after them.
    if (_fSize != _fCapacity && _fAscending &&
        (_fSize == 0 || IsBelow(_fItems[_fSize - 1].first, name))) [[likely]] {
      new (_fItems + _fSize++) Item{name, ibytes};
    } else {
      SetStoredAnywhere(name, ibytes);
    }
  }
  bool Erase(TextView name);
  void clear();

  // The bytes beyond the object itself. `seen` prevents shared memory from being counted twice.
  size_t MemoryUse(std::unordered_set<const void*>& seen) const {
    return _fArena.MemoryUse(seen) + _fBorrowedArena.MemoryUse(seen) +
           (_fIndex == nullptr ? 0 : sizeof(CHashIndex) + _fIndex->MemoryUse());
  }

  // Equal when the same names have equal values, in any order.
  friend bool operator==(const CStrDict& a, const CStrDict& b);

 private:
  static constexpr uint32_t kNone = CHashIndex::kNone;

  void SetStoredAnywhere(TextView name, BytesView ibytes);
  uint32_t Find(TextView name) const;
  // REQUIRES: every operation calls it before it changes an item.
  void MakeItemsOwn() {
    if (_fItemsShared) [[unlikely]] {
      DetachItems();
    }
  }
  void DetachItems();
  void Append(TextView name, BytesView ibytes);
  void Reserve(size_t capacity);
  void Swap(CStrDict& other) noexcept {
    std::swap(_fArena, other._fArena);
    std::swap(_fBorrowedArena, other._fBorrowedArena);
    std::swap(_fArenaBorrowed, other._fArenaBorrowed);
    std::swap(_fItemsShared, other._fItemsShared);
    std::swap(_fItems, other._fItems);
    std::swap(_fSize, other._fSize);
    std::swap(_fCapacity, other._fCapacity);
    std::swap(_fAscending, other._fAscending);
    std::swap(_fIndex, other._fIndex);
  }

  CArena _fArena;
  CArena _fBorrowedArena;   // of a copy that changed: what it shared, which views may point into
  Item* _fItems = nullptr;  // in _fArena
  uint32_t _fSize = 0;
  uint32_t _fCapacity = 0;
  bool _fAscending = true;             // every name is greater than the one before it
  bool _fArenaBorrowed = false;        // another dictionary made _fArena
  mutable bool _fItemsShared = false;  // another dictionary uses the same items
  // Made by the first look-up that needs it; removed when positions change.
  mutable std::unique_ptr<CHashIndex> _fIndex;
};

}  // namespace pysource
