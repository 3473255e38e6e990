// A dictionary that keeps its keys in the order of use, so that its owner can remove the least
// recently used ones first. It removes nothing itself.
#pragma once

#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "pysource/host/linkedslots.h"

namespace pysource {

// Iteration runs from the most to the least recently used key, from rbegin() to rend() the other
// way. Every operation takes constant time, except those that take a sequence or copy keys. Get
// allocates nothing.
//
// A new key that is stored without counting as a use enters at the least recently used end: a bulk
// read of scopes that nobody asked for must not push out those in use.
template <class Key, class Value, class Hash = std::hash<Key>, class Equal = std::equal_to<>>
class CUsageOrderedDict {
  using Slots = CLinkedSlots<Key, Value, Hash, Equal>;

 public:
  using key_type = Key;
  using mapped_type = Value;
  using Entry = typename Slots::Entry;
  using const_iterator = typename Slots::template CIterator<true, true>;
  using const_reverse_iterator = typename Slots::template CIterator<true, false>;

  // The value of `key`, or null. Marks the key as the most recently used. The pointer is valid
  // until the next Set or removal.
  template <class K>
  Value* Get(const K& key) {
    const auto slot = _fSlots.Find(key);
    if (slot == Slots::kNone) {
      return nullptr;
    }
    _fSlots.MoveToFront(slot);
    return &_fSlots.At(slot).second;
  }

  // The value of `key`, or null, without counting as a use.
  template <class K>
  const Value* Peek(const K& key) const {
    const auto slot = _fSlots.Find(key);
    return slot == Slots::kNone ? nullptr : &_fSlots.At(slot).second;
  }

  // Stores the value. With `count_as_use` the key becomes the most recently used. Without it, a
  // known key keeps its place, and a new one enters at the least recently used end.
  void Set(Key key, Value value, bool count_as_use = true) {
    const uint64_t hash = Slots::HashOf(key);
    const auto slot = _fSlots.Find(key, hash);
    if (slot == Slots::kNone) {
      _fSlots.Add(count_as_use, std::move(key), hash, std::move(value));
      return;
    }
    if (count_as_use) {
      _fSlots.MoveToFront(slot);
    }
    // Swapped, not assigned: code that runs when the old value is destroyed finds the new one in
    // place.
    std::swap(_fSlots.At(slot).second, value);
  }

  // If `key` is unknown, adds it at the least recently used end; `make()` returns the key to store.
  template <class K, class Make>
  void EnterUnused(const K& key, Make make, Value value) {
    const uint64_t hash = Slots::HashOf(key);
    if (_fSlots.Find(key, hash) == Slots::kNone) {
      _fSlots.Add(false, make(), hash, std::move(value));
    }
  }

  // ---- Entries by number, without hashing. A number is valid until its entry is removed; then it
  // can be used again for another entry.

  using Slot = typename Slots::Slot;
  static constexpr Slot kNoSlot = Slots::kNone;
  // The number of the key's entry, or kNoSlot; does not count as a use.
  template <class K>
  Slot SlotOf(const K& key) const {
    return _fSlots.Find(key);
  }
  bool IsLive(Slot slot) const { return _fSlots.IsLive(slot); }
  const Entry& At(Slot slot) const { return _fSlots.At(slot); }
  Value& ValueAt(Slot slot) { return _fSlots.At(slot).second; }
  Entry TakeAt(Slot slot) { return _fSlots.Take(slot); }
  void MarkUsed(Slot slot) { _fSlots.MoveToFront(slot); }
  // Adds a key as the most recently used.
  // REQUIRES: the key is new.
  Slot Add(Key key, Value value) { return _fSlots.Add(true, std::move(key), std::move(value)); }

  template <class K>
  bool Contains(const K& key) const {
    return _fSlots.Find(key) != Slots::kNone;
  }
  size_t length() const noexcept { return _fSlots.Size(); }
  size_t size() const noexcept { return _fSlots.Size(); }
  bool empty() const noexcept { return size() == 0; }

  void clear() { _fSlots.Clear(); }
  void Clear() { _fSlots.Clear(); }

  // A copy of the keys, most recently used first.
  std::vector<Key> keys() const {
    std::vector<Key> result;
    result.reserve(size());
    for (const auto& entry : *this) {
      result.push_back(entry.first);
    }
    return result;
  }

  // Removes the key and returns its value; absent if the key is unknown.
  template <class K>
  std::optional<Value> pop(const K& key) {
    const auto slot = _fSlots.Find(key);
    if (slot == Slots::kNone) {
      return std::nullopt;
    }
    return _fSlots.Take(slot).second;
  }

  // Removes each key of `sequence` that is present.
  template <class Sequence>
  void DifferenceUpdate(const Sequence& sequence) {
    for (const auto& key : sequence) {
      pop(key);
    }
  }

  const_iterator begin() const { return {&_fSlots, _fSlots.First()}; }
  const_iterator end() const { return {&_fSlots, Slots::kNone}; }
  const_reverse_iterator rbegin() const { return {&_fSlots, _fSlots.Last()}; }
  const_reverse_iterator rend() const { return {&_fSlots, Slots::kNone}; }

  size_t MemoryUse() const { return _fSlots.MemoryUse(); }

 private:
  Slots _fSlots;
};

}  // namespace pysource
