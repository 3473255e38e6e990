// A set of record keys. There is one for every scope of every file in several indexes, and most
// hold one or two keys, so an empty set or one of a single key makes no allocation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <utility>

#include "pysource/scopeinfo/records/scopeinfokey.h"

namespace pysource::scopeinfo {

// One key lies in the object itself; more lie in an array, in no order while there are few of them
// and as an open-addressing table after that. A table has the hash of each key beside it: keys that
// are merely passed by are then not looked at, which lie scattered and cold. Must not be changed
// while it is walked.
class CScopeInfoKeySet {
 public:
  using key_type = CScopeInfoKey;
  using value_type = CScopeInfoKey;

  class const_iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = CScopeInfoKey;
    using difference_type = std::ptrdiff_t;
    using pointer = const CScopeInfoKey*;
    using reference = const CScopeInfoKey&;
    const_iterator() = default;
    const_iterator(pointer at, pointer end) : _fAt(at), _fEnd(end) { SkipEmpty(); }
    reference operator*() const { return *_fAt; }
    pointer operator->() const { return _fAt; }
    const_iterator& operator++() {
      ++_fAt;
      SkipEmpty();
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const_iterator a, const_iterator b) { return a._fAt == b._fAt; }

   private:
    void SkipEmpty() {
      while (_fAt != _fEnd && !*_fAt) {
        ++_fAt;
      }
    }
    pointer _fAt = nullptr;
    pointer _fEnd = nullptr;
  };

  CScopeInfoKeySet() noexcept = default;
  CScopeInfoKeySet(std::initializer_list<CScopeInfoKey> keys)
      : CScopeInfoKeySet(keys.begin(), keys.end()) {}
  template <class It>
  CScopeInfoKeySet(It first, It last) {
    insert(first, last);
  }
  CScopeInfoKeySet(const CScopeInfoKeySet& other) : CScopeInfoKeySet(other.begin(), other.end()) {}
  CScopeInfoKeySet(CScopeInfoKeySet&& other) noexcept { Swap(other); }
  CScopeInfoKeySet& operator=(CScopeInfoKeySet other) noexcept {
    Swap(other);
    return *this;
  }
  ~CScopeInfoKeySet() { Free(); }

  size_t size() const noexcept { return _fSize; }
  bool empty() const noexcept { return _fSize == 0; }
  const_iterator begin() const { return {Cells(), Cells() + CellCount()}; }
  const_iterator end() const { return {Cells() + CellCount(), Cells() + CellCount()}; }
  bool contains(const CScopeInfoKey& key) const { return Find(key) != nullptr; }

  // Returns whether the key is new. The key must not be absent.
  bool insert(const CScopeInfoKey& key);
  template <class It>
  void insert(It first, It last) {
    for (; first != last; ++first) {
      insert(*first);
    }
  }
  // Returns whether the key was there.
  bool erase(const CScopeInfoKey& key);
  void clear() { CScopeInfoKeySet().Swap(*this); }

  friend bool operator==(const CScopeInfoKeySet& a, const CScopeInfoKeySet& b);

  // Bytes beyond the object itself, without the keys.
  size_t MemoryUse() const noexcept { return BytesFor(_fCapacity); }

 private:
  static constexpr uint32_t kLinearSize = 8;

  static bool IsTable(uint32_t capacity) noexcept { return capacity > kLinearSize; }
  bool IsTable() const noexcept { return IsTable(_fCapacity); }
  // Of one allocation: the cells, and of a table the hashes behind them.
  static size_t BytesFor(uint32_t capacity) noexcept {
    return capacity * (sizeof(CScopeInfoKey) + (IsTable(capacity) ? sizeof(uint32_t) : 0));
  }
  // The cells that can hold keys: of a table all, of an array those in use.
  size_t CellCount() const noexcept { return IsTable() ? _fCapacity : _fSize; }
  const CScopeInfoKey* Cells() const noexcept { return _fCapacity == 0 ? &_fSingle : _fCells; }
  CScopeInfoKey* Cells() noexcept { return _fCapacity == 0 ? &_fSingle : _fCells; }
  // Of a table; that of an empty cell says nothing.
  uint32_t* Hashes() const noexcept { return reinterpret_cast<uint32_t*>(_fCells + _fCapacity); }
  static uint32_t HashOf(const CScopeInfoKey& key) noexcept {
    return static_cast<uint32_t>(MixHash(key.Hash()));
  }
  const CScopeInfoKey* Find(const CScopeInfoKey& key) const;
  void Place(CScopeInfoKey key, uint32_t hash);
  void Grow();
  void Free() noexcept;
  void Swap(CScopeInfoKeySet& other) noexcept;

  uint32_t _fSize = 0;
  uint32_t _fCapacity = 0;  // of _fCells; a power of two, or zero while _fSingle serves
  CScopeInfoKey _fSingle;
  CScopeInfoKey* _fCells = nullptr;  // owned
};

}  // namespace pysource::scopeinfo
