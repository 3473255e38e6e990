// A set of record keys. Several indexes have one for every scope of every file, and most sets hold
// one or two keys, so an empty set and a set of one key allocate nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <utility>

#include "pysource/scopeinfo/records/scopeinfokey.h"

namespace pysource::scopeinfo {

// A single key is stored in the object itself. Several keys are stored in an array: unordered up to
// kLinearSize, as an open-addressing table above. A table stores a hash for each key, so that
// probing reads no keys that do not match; they are scattered in memory and rarely in the
// processor's cache.
//
// REQUIRES: the set is not changed during a walk over it.
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

  // True if the key is new.
  // REQUIRES: the key is not absent.
  bool insert(const CScopeInfoKey& key);
  template <class It>
  void insert(It first, It last) {
    for (; first != last; ++first) {
      insert(*first);
    }
  }
  // True if the key was in the set.
  bool erase(const CScopeInfoKey& key);
  void clear() { CScopeInfoKeySet().Swap(*this); }

  friend bool operator==(const CScopeInfoKeySet& a, const CScopeInfoKeySet& b);

  // The bytes beyond the object itself, without the keys' shared values.
  size_t MemoryUse() const noexcept { return BytesFor(_fCapacity); }

 private:
  static constexpr uint32_t kLinearSize = 8;

  static bool IsTable(uint32_t capacity) noexcept { return capacity > kLinearSize; }
  bool IsTable() const noexcept { return IsTable(_fCapacity); }
  // The size of the allocation: the cells and, in a table, the hashes after them.
  static size_t BytesFor(uint32_t capacity) noexcept {
    return capacity * (sizeof(CScopeInfoKey) + (IsTable(capacity) ? sizeof(uint32_t) : 0));
  }
  // The number of cells that can hold keys: all in a table, those in use in an array.
  size_t CellCount() const noexcept { return IsTable() ? _fCapacity : _fSize; }
  const CScopeInfoKey* Cells() const noexcept { return _fCapacity == 0 ? &_fSingle : _fCells; }
  CScopeInfoKey* Cells() noexcept { return _fCapacity == 0 ? &_fSingle : _fCells; }
  // The hashes of a table; the one of an empty cell has no meaning.
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
  uint32_t _fCapacity = 0;  // of _fCells; a power of two, or zero while _fSingle is used
  CScopeInfoKey _fSingle;
  CScopeInfoKey* _fCells = nullptr;  // owned
};

}  // namespace pysource::scopeinfo
