// A dictionary that keeps its entries in the order in which their keys were first stored.
#pragma once

#include <functional>
#include <optional>
#include <utility>

#include "pysource/host/linkedslots.h"

namespace pysource {

// Replacing a value keeps the place of its key. Looking up, storing and erasing take constant time.
// Keys can be looked up by every type that the hash and the equality accept.
template <class Key, class Value, class Hash = std::hash<Key>, class Equal = std::equal_to<>>
class CInsertionOrderedDict {
  using Slots = CLinkedSlots<Key, Value, Hash, Equal>;

 public:
  using key_type = Key;
  using mapped_type = Value;
  using Entry = typename Slots::Entry;
  using iterator = typename Slots::template CIterator<false, true>;
  using const_iterator = typename Slots::template CIterator<true, true>;

  size_t size() const noexcept { return _fSlots.Size(); }
  bool empty() const noexcept { return size() == 0; }

  iterator begin() { return {&_fSlots, _fSlots.First()}; }
  iterator end() { return {&_fSlots, Slots::kNone}; }
  const_iterator begin() const { return {&_fSlots, _fSlots.First()}; }
  const_iterator end() const { return {&_fSlots, Slots::kNone}; }

  // The value of `key`, or null. Valid until the next key is stored or this one is erased.
  template <class K>
  Value* Find(const K& key) {
    const auto slot = _fSlots.Find(key);
    return slot == Slots::kNone ? nullptr : &_fSlots.At(slot).second;
  }
  template <class K>
  const Value* Find(const K& key) const {
    const auto slot = _fSlots.Find(key);
    return slot == Slots::kNone ? nullptr : &_fSlots.At(slot).second;
  }
  template <class K>
  bool Contains(const K& key) const {
    return _fSlots.Find(key) != Slots::kNone;
  }

  // Stores the value under the key: at the key's old place, or at the end for a new key.
  Value& Set(Key key, Value value) {
    const uint64_t hash = Slots::HashOf(key);
    const auto slot = _fSlots.Find(key, hash);
    if (slot == Slots::kNone) {
      return _fSlots.At(_fSlots.Add(false, std::move(key), hash, std::move(value))).second;
    }
    // Swapped, not assigned: code that runs when the old value is destroyed finds the new one in
    // place.
    std::swap(_fSlots.At(slot).second, value);
    return _fSlots.At(slot).second;
  }

  // The value of `key`. For a new key, stores a default-constructed value first. `key` can be of
  // any type by which keys can be looked up and from which one can be made.
  template <class K>
  Value& GetOrMake(const K& key) {
    const uint64_t hash = Slots::HashOf(key);
    auto slot = _fSlots.Find(key, hash);
    if (slot == Slots::kNone) {
      slot = _fSlots.Add(false, Key(key), hash, Value());
    }
    return _fSlots.At(slot).second;
  }

  // Stores the value at the end.
  // REQUIRES: the key is new.
  Value& Add(Key key, Value value) {
    return _fSlots.At(_fSlots.Add(false, std::move(key), std::move(value))).second;
  }

  // Removes the key and returns its value; absent if the key is unknown.
  template <class K>
  std::optional<Value> Pop(const K& key) {
    const auto slot = _fSlots.Find(key);
    if (slot == Slots::kNone) {
      return std::nullopt;
    }
    return _fSlots.Take(slot).second;
  }
  template <class K>
  bool Erase(const K& key) {
    return Pop(key).has_value();
  }

  void clear() { _fSlots.Clear(); }

  // Equal when the same keys have equal values, in any order.
  friend bool operator==(const CInsertionOrderedDict& a, const CInsertionOrderedDict& b) {
    if (a.size() != b.size()) {
      return false;
    }
    for (const auto& [key, value] : a) {
      const Value* other = b.Find(key);
      if (other == nullptr || !(*other == value)) {
        return false;
      }
    }
    return true;
  }

  size_t MemoryUse() const { return _fSlots.MemoryUse(); }

 private:
  Slots _fSlots;
};

}  // namespace pysource
