// The hash table under the dictionaries: it maps a hash to the number of a slot. It stores no keys;
// its user does.
//
// Open addressing with linear probing. A cell is eight bytes: a 32-bit tag, which is part of the
// hash, and the slot. The tag decides nearly all comparisons without reading the slot, and is
// enough to place the cell again when the table grows, so growing does not read the user's keys.
// Erasing shifts cells back: there are no tombstones, so a table that has grown and shrunk for a
// long time probes like a new one.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace pysource {

class CHashIndex {
 public:
  static constexpr uint32_t kNone = 0xFFFFFFFF;

  // The slot, among those added under `hash`, for which `is_slot(slot)` is true, or kNone.
  template <class IsSlot>
  uint32_t Find(uint64_t hash, IsSlot&& is_slot) const {
    if (_fCells.empty()) {
      return kNone;
    }
    const uint32_t tag = Tag(hash);
    for (size_t at = tag & _fMask;; at = (at + 1) & _fMask) {
      const Cell& cell = _fCells[at];
      if (cell.slot == kNone) {
        return kNone;
      }
      if (cell.tag == tag && is_slot(cell.slot)) {
        return cell.slot;
      }
    }
  }

  // Adds `slot` under `hash`.
  // REQUIRES: `slot` is not in the table.
  void Insert(uint64_t hash, uint32_t slot) {
    // At most three quarters full: above that, linear probing gets slow.
    if ((_fCount + 1) * 4 > _fCells.size() * 3) {
      Grow();
    }
    Place(Cell{Tag(hash), slot});
    ++_fCount;
  }

  // Removes `slot`.
  // REQUIRES: `slot` is in the table, under `hash`.
  void Erase(uint64_t hash, uint32_t slot) {
    size_t hole = Tag(hash) & _fMask;
    while (_fCells[hole].slot != slot) {
      hole = (hole + 1) & _fMask;
    }
    for (size_t at = (hole + 1) & _fMask; _fCells[at].slot != kNone; at = (at + 1) & _fMask) {
      const size_t home = _fCells[at].tag & _fMask;
      if (((at - home) & _fMask) >= ((at - hole) & _fMask)) {
        _fCells[hole] = _fCells[at];
        hole = at;
      }
    }
    _fCells[hole].slot = kNone;
    --_fCount;
  }

  void Clear() {
    _fCells = {};
    _fMask = 0;
    _fCount = 0;
  }

  // Removes all slots and keeps the cells, or half of them if few were in use. So a table that is
  // filled again and again allocates nothing, and clearing it costs what it has needed recently.
  void Reuse() {
    const bool has_too_much = _fCells.size() > 16 && _fCount * 8 < _fCells.size();
    _fCells.resize(has_too_much ? _fCells.size() / 2 : _fCells.size());
    std::fill(_fCells.begin(), _fCells.end(), Cell{0, kNone});
    _fMask = _fCells.empty() ? 0 : _fCells.size() - 1;
    _fCount = 0;
  }

  size_t MemoryUse() const { return _fCells.capacity() * sizeof(Cell); }

 private:
  struct Cell {
    uint32_t tag;
    uint32_t slot;
  };

  static uint32_t Tag(uint64_t hash) noexcept {
    // std::hash of integers is the identity, so its bits are spread before the low ones choose the
    // cell.
    return static_cast<uint32_t>((hash * 0x9E3779B97F4A7C15ULL) >> 32);
  }

  void Place(Cell cell) {
    size_t at = cell.tag & _fMask;
    while (_fCells[at].slot != kNone) {
      at = (at + 1) & _fMask;
    }
    _fCells[at] = cell;
  }

  void Grow() {
    std::vector<Cell> old = std::move(_fCells);
    const size_t size = old.empty() ? 16 : old.size() * 2;
    _fCells.assign(size, Cell{0, kNone});
    _fMask = size - 1;
    for (const Cell& cell : old) {
      if (cell.slot != kNone) {
        Place(cell);
      }
    }
  }

  std::vector<Cell> _fCells;  // size is zero or a power of two
  size_t _fMask = 0;
  size_t _fCount = 0;
};

}  // namespace pysource
