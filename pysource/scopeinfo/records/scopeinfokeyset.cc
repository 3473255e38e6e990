#include "pysource/scopeinfo/records/scopeinfokeyset.h"

#include <algorithm>
#include <memory>
#include <new>

namespace pysource::scopeinfo {

const CScopeInfoKey* CScopeInfoKeySet::Find(const CScopeInfoKey& key) const {
  const CScopeInfoKey* const cells = Cells();
  if (!IsTable()) {
    const CScopeInfoKey* const end = cells + _fSize;
    const CScopeInfoKey* const found = std::find(cells, end, key);
    return found == end ? nullptr : found;
  }
  const uint32_t hash = HashOf(key);
  const uint32_t* const hashes = Hashes();
  for (uint32_t at = hash & (_fCapacity - 1); cells[at]; at = (at + 1) & (_fCapacity - 1)) {
    if (hashes[at] == hash && cells[at] == key) {
      return &cells[at];
    }
  }
  return nullptr;
}

bool CScopeInfoKeySet::insert(const CScopeInfoKey& key) {
  if (contains(key)) {
    return false;
  }
  const uint32_t room = _fCapacity == 0 ? 1 : IsTable() ? _fCapacity / 4 * 3 : _fCapacity;
  if (_fSize == room) {
    Grow();
  }
  Place(key, IsTable() ? HashOf(key) : 0);
  ++_fSize;
  return true;
}

void CScopeInfoKeySet::Place(CScopeInfoKey key, uint32_t hash) {
  CScopeInfoKey* const cells = Cells();
  if (!IsTable()) {
    cells[_fSize] = std::move(key);
    return;
  }
  uint32_t at = hash & (_fCapacity - 1);
  while (cells[at]) {
    at = (at + 1) & (_fCapacity - 1);
  }
  cells[at] = std::move(key);
  Hashes()[at] = hash;
}

void CScopeInfoKeySet::Grow() {
  const uint32_t capacity = _fCapacity == 0 ? 4 : _fCapacity * 2;
  CScopeInfoKeySet grown;
  grown._fCells = static_cast<CScopeInfoKey*>(::operator new(BytesFor(capacity)));
  std::uninitialized_value_construct_n(grown._fCells, capacity);
  grown._fCapacity = capacity;
  CScopeInfoKey* const cells = Cells();
  for (size_t i = 0, count = CellCount(); i < count; ++i) {
    if (cells[i]) {
      const uint32_t hash = IsTable() ? Hashes()[i] : grown.IsTable() ? HashOf(cells[i]) : 0;
      grown.Place(std::move(cells[i]), hash);
      ++grown._fSize;
    }
  }
  Swap(grown);
}

void CScopeInfoKeySet::Free() noexcept {
  std::destroy_n(_fCells, _fCapacity);
  ::operator delete(_fCells);
}

bool CScopeInfoKeySet::erase(const CScopeInfoKey& key) {
  const CScopeInfoKey* const found = Find(key);
  if (found == nullptr) {
    return false;
  }
  CScopeInfoKey* const cells = Cells();
  auto hole = static_cast<size_t>(found - cells);
  // Released only when the set is consistent again: it may be the last copy of `key` itself.
  const CScopeInfoKey taken = std::move(cells[hole]);
  --_fSize;
  if (!IsTable()) {
    if (hole != _fSize) {
      cells[hole] = std::move(cells[_fSize]);
    }
    return true;
  }
  const size_t mask = _fCapacity - 1;
  uint32_t* const hashes = Hashes();
  for (size_t at = (hole + 1) & mask; cells[at]; at = (at + 1) & mask) {
    if (((at - hashes[at]) & mask) >= ((at - hole) & mask)) {
      cells[hole] = std::move(cells[at]);
      hashes[hole] = hashes[at];
      hole = at;
    }
  }
  return true;
}

void CScopeInfoKeySet::Swap(CScopeInfoKeySet& other) noexcept {
  std::swap(_fSize, other._fSize);
  std::swap(_fCapacity, other._fCapacity);
  std::swap(_fSingle, other._fSingle);
  std::swap(_fCells, other._fCells);
}

bool operator==(const CScopeInfoKeySet& a, const CScopeInfoKeySet& b) {
  return a.size() == b.size() &&
         std::all_of(a.begin(), a.end(), [&](const CScopeInfoKey& key) { return b.contains(key); });
}

}  // namespace pysource::scopeinfo
