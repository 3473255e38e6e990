// The store under CInsertionOrderedDict and CUsageOrderedDict: entries in numbered slots, linked in
// an order, with a hash table over them.
//
// The slots are in one array and linked by number, so an entry needs no allocation of its own,
// moving it in the order touches at most five slots, and a number is valid until its entry is
// erased. Up to kLinearSize entries there is no table: comparing a few hashes one after the other
// is faster, and most dictionaries here hold one or two entries.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "pysource/host/hashindex.h"

namespace pysource {

template <class Key, class Value, class Hash, class Equal>
class CLinkedSlots {
 public:
  using Slot = uint32_t;
  static constexpr Slot kNone = CHashIndex::kNone;

  // Named like the members of a pair, so that `for (auto& [key, value] : dict)` reads as usual.
  // REQUIRES: nobody changes the key.
  struct Entry {
    Key first;
    Value second;
  };

  CLinkedSlots() = default;
  CLinkedSlots(CLinkedSlots&& other) noexcept { Swap(other); }
  CLinkedSlots& operator=(CLinkedSlots&& other) noexcept {
    CLinkedSlots doomed(std::move(*this));
    Swap(other);
    return *this;
  }
  CLinkedSlots(const CLinkedSlots& other) { CopyFrom(other); }
  CLinkedSlots& operator=(const CLinkedSlots& other) {
    if (this != &other) {
      CLinkedSlots copy(other);
      Swap(copy);
    }
    return *this;
  }
  ~CLinkedSlots() = default;

  size_t Size() const noexcept { return _fSize; }
  Slot First() const noexcept { return _fFirst; }
  Slot Last() const noexcept { return _fLast; }
  Slot Next(Slot slot) const noexcept { return _fNodes[slot].next; }
  Slot Previous(Slot slot) const noexcept { return _fNodes[slot].previous; }
  bool IsLive(Slot slot) const noexcept { return slot < _fNodes.size() && _fNodes[slot].entry; }
  Entry& At(Slot slot) { return *_fNodes[slot].entry; }
  const Entry& At(Slot slot) const { return *_fNodes[slot].entry; }

  template <class K>
  static uint64_t HashOf(const K& key) {
    return static_cast<uint64_t>(Hash()(key));
  }

  template <class K>
  Slot Find(const K& key) const {
    return Find(key, HashOf(key));
  }
  // With the hash of the key, for callers that need the hash twice.
  template <class K>
  Slot Find(const K& key, uint64_t hash) const {
    if (_fIndexed) {
      return _fIndex.Find(hash, [&](Slot slot) {
        return _fNodes[slot].hash == hash && Equal()(At(slot).first, key);
      });
    }
    for (Slot slot = _fFirst; slot != kNone; slot = _fNodes[slot].next) {
      if (_fNodes[slot].hash == hash && Equal()(At(slot).first, key)) {
        return slot;
      }
    }
    return kNone;
  }

  // Adds an entry at the front or at the back of the order.
  // REQUIRES: the key is new.
  Slot Add(bool at_front, Key key, Value value) {
    const uint64_t hash = HashOf(key);
    return Add(at_front, std::move(key), hash, std::move(value));
  }
  Slot Add(bool at_front, Key key, uint64_t hash, Value value) {
    Slot slot = _fFree;
    if (slot == kNone) {
      slot = static_cast<Slot>(_fNodes.size());
      _fNodes.emplace_back();
    }
    Node& node = _fNodes[slot];
    node.entry.emplace(Entry{std::move(key), std::move(value)});
    if (slot == _fFree) {
      _fFree = node.next;
    }
    node.hash = hash;
    Link(slot, at_front);
    ++_fSize;
    if (_fIndexed) {
      _fIndex.Insert(hash, slot);
    } else if (_fSize > kLinearSize) {
      BuildIndex();
    }
    return slot;
  }

  void MoveToFront(Slot slot) noexcept {
    if (slot != _fFirst) {
      Unlink(slot);
      Link(slot, true);
    }
  }

  // Removes the entry and returns it, so that code that runs when it is destroyed finds this store
  // consistent.
  Entry Take(Slot slot) {
    Node& node = _fNodes[slot];
    if (_fIndexed) {
      _fIndex.Erase(node.hash, slot);
    }
    Unlink(slot);
    --_fSize;
    Entry taken = std::move(*node.entry);
    node.entry.reset();
    node.next = _fFree;
    _fFree = slot;
    return taken;
  }

  void Clear() { CLinkedSlots doomed(std::move(*this)); }

  size_t MemoryUse() const { return _fNodes.capacity() * sizeof(Node) + _fIndex.MemoryUse(); }

  // Walks over the order, forwards from the front or backwards from the back. Entries may be added
  // during a walk, which may or may not visit them.
  // REQUIRES: the entry at the iterator is not removed.
  template <bool kConst, bool kForward>
  class CIterator {
   public:
    using Store = std::conditional_t<kConst, const CLinkedSlots, CLinkedSlots>;
    using iterator_category = std::forward_iterator_tag;
    using value_type = Entry;
    using difference_type = std::ptrdiff_t;
    using pointer = std::conditional_t<kConst, const Entry*, Entry*>;
    using reference = std::conditional_t<kConst, const Entry&, Entry&>;

    CIterator() = default;
    CIterator(Store* store, Slot slot) : _fStore(store), _fSlot(slot) {}
    reference operator*() const { return _fStore->At(_fSlot); }
    pointer operator->() const { return &_fStore->At(_fSlot); }
    Slot slot() const { return _fSlot; }
    CIterator& operator++() {
      _fSlot = kForward ? _fStore->Next(_fSlot) : _fStore->Previous(_fSlot);
      return *this;
    }
    CIterator operator++(int) {
      CIterator before = *this;
      ++*this;
      return before;
    }
    friend bool operator==(const CIterator& a, const CIterator& b) { return a._fSlot == b._fSlot; }

   private:
    Store* _fStore = nullptr;
    Slot _fSlot = kNone;
  };

 private:
  static constexpr size_t kLinearSize = 8;

  // The fields that a look-up and a move in the order touch come first, then the key.
  struct Node {
    uint64_t hash = 0;
    Slot previous = kNone;
    Slot next = kNone;           // of a free slot: the next free one
    std::optional<Entry> entry;  // empty while the slot is free
  };

  void Swap(CLinkedSlots& other) noexcept {
    std::swap(_fNodes, other._fNodes);
    std::swap(_fIndex, other._fIndex);
    std::swap(_fFirst, other._fFirst);
    std::swap(_fLast, other._fLast);
    std::swap(_fFree, other._fFree);
    std::swap(_fSize, other._fSize);
    std::swap(_fIndexed, other._fIndexed);
  }

  void CopyFrom(const CLinkedSlots& other) {
    _fNodes.reserve(other._fSize);
    for (Slot slot = other._fFirst; slot != kNone; slot = other.Next(slot)) {
      Add(false, other.At(slot).first, other.At(slot).second);
    }
  }

  void BuildIndex() {
    for (Slot slot = _fFirst; slot != kNone; slot = _fNodes[slot].next) {
      _fIndex.Insert(_fNodes[slot].hash, slot);
    }
    _fIndexed = true;
  }

  void Link(Slot slot, bool at_front) noexcept {
    Node& node = _fNodes[slot];
    node.previous = at_front ? kNone : _fLast;
    node.next = at_front ? _fFirst : kNone;
    (node.previous == kNone ? _fFirst : _fNodes[node.previous].next) = slot;
    (node.next == kNone ? _fLast : _fNodes[node.next].previous) = slot;
  }

  void Unlink(Slot slot) noexcept {
    const Node& node = _fNodes[slot];
    (node.previous == kNone ? _fFirst : _fNodes[node.previous].next) = node.next;
    (node.next == kNone ? _fLast : _fNodes[node.next].previous) = node.previous;
  }

  std::vector<Node> _fNodes;
  CHashIndex _fIndex;  // holds every live slot once _fIndexed is set; empty before
  Slot _fFirst = kNone;
  Slot _fLast = kNone;
  Slot _fFree = kNone;  // head of the list of free slots
  size_t _fSize = 0;
  bool _fIndexed = false;
};

}  // namespace pysource
