#include "pysource/scopeinfo/records/scopeinfokeyset.h"

#include <algorithm>

namespace pysource::scopeinfo {

const CScopeInfoKey* CScopeInfoKeySet::Find(const CScopeInfoKey& key) const {
  const CScopeInfoKey* const cells = Cells();
  if (!IsTable()) {
    const CScopeInfoKey* const end = cells + _fSize;
    const CScopeInfoKey* const found = std::find(cells, end, key);
    return found == end ? nullptr : found;
  }
  for (size_t at = Home(key); cells[at]; at = (at + 1) & (_fCapacity - 1)) {
    if (cells[at] == key) {
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
  Place(key);
  ++_fSize;
  return true;
}

void CScopeInfoKeySet::Place(CScopeInfoKey key) {
  CScopeInfoKey* const cells = Cells();
  if (!IsTable()) {
    cells[_fSize] = std::move(key);
    return;
  }
  size_t at = Home(key);
  while (cells[at]) {
    at = (at + 1) & (_fCapacity - 1);
  }
  cells[at] = std::move(key);
}

void CScopeInfoKeySet::Grow() {
  const uint32_t capacity = _fCapacity == 0 ? 4 : _fCapacity * 2;
  CScopeInfoKeySet grown;
  grown._fCells = std::make_unique<CScopeInfoKey[]>(capacity);
  grown._fCapacity = capacity;
  CScopeInfoKey* const cells = Cells();
  for (size_t i = 0, count = CellCount(); i < count; ++i) {
    if (cells[i]) {
      grown.Place(std::move(cells[i]));
      ++grown._fSize;
    }
  }
  Swap(grown);
}

bool CScopeInfoKeySet::erase(const CScopeInfoKey& key) {
  const CScopeInfoKey* const found = Find(key);
  if (found == nullptr) {
    return false;
  }
  CScopeInfoKey* const cells = Cells();
  auto hole = static_cast<size_t>(found - cells);
  // The key goes when everything is in order again: it may be the last copy of `key` itself.
  const CScopeInfoKey taken = std::move(cells[hole]);
  --_fSize;
  if (!IsTable()) {
    if (hole != _fSize) {
      cells[hole] = std::move(cells[_fSize]);
    }
    return true;
  }
  const size_t mask = _fCapacity - 1;
  for (size_t at = (hole + 1) & mask; cells[at]; at = (at + 1) & mask) {
    if (((at - Home(cells[at])) & mask) >= ((at - hole) & mask)) {
      cells[hole] = std::move(cells[at]);
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
