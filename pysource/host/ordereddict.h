// A dictionary that keeps its entries in the order in which their keys were first stored.
#pragma once

#include <functional>
#include <optional>
#include <utility>

#include "pysource/host/linkedslots.h"

namespace pysource {

// Replacing a value keeps the place of its key. Look-up, storing and erasing take constant time.
// The hash and the equality decide what a key can be looked up by.
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

  // The value of `key`, or null. Good until the next key is stored or this one erased.
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

  // Stores the value under the key, at the key's old place or at the end.
  Value& Set(Key key, Value value) {
    const uint64_t hash = Slots::HashOf(key);
    const auto slot = _fSlots.Find(key, hash);
    if (slot == Slots::kNone) {
      return _fSlots.At(_fSlots.Add(false, std::move(key), hash, std::move(value))).second;
    }
    // Swapped, not assigned: what the old value's end sets off finds the new one in place.
    std::swap(_fSlots.At(slot).second, value);
    return _fSlots.At(slot).second;
  }

  // The value of `key`, stored as a default-made one if the key is new. The key can be anything
  // that a key can be looked up by and made from.
  template <class K>
  Value& GetOrMake(const K& key) {
    const uint64_t hash = Slots::HashOf(key);
    auto slot = _fSlots.Find(key, hash);
    if (slot == Slots::kNone) {
      slot = _fSlots.Add(false, Key(key), hash, Value());
    }
    return _fSlots.At(slot).second;
  }

  // Stores the value at the end, under a key that is new.
  Value& Add(Key key, Value value) {
    return _fSlots.At(_fSlots.Add(false, std::move(key), std::move(value))).second;
  }

  // Takes the value out; absent when the key is unknown.
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

  // Equal when the same keys hold equal values, in whatever order.
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
