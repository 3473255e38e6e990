// A set of numbers that takes little memory: most sets hold one or two numbers, some hold
// thousands.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "pysource/host/hashindex.h"

namespace pysource {

// The members are in one array, in no particular order. Above kLinearSize members a table finds
// their places, so that adding and erasing take constant time.
// REQUIRES: the set is not changed during a walk over it.
class CIdSet {
 public:
  size_t size() const noexcept { return _fIds.size(); }
  bool empty() const noexcept { return _fIds.empty(); }
  auto begin() const noexcept { return _fIds.begin(); }
  auto end() const noexcept { return _fIds.end(); }
  bool Contains(uint32_t id) const { return PlaceOf(id) != kNone; }

  // True if the number is new.
  bool Add(uint32_t id) {
    if (PlaceOf(id) != kNone) {
      return false;
    }
    const auto place = static_cast<uint32_t>(_fIds.size());
    _fIds.push_back(id);
    if (_fPlaces != nullptr) {
      _fPlaces->Insert(id, place);
    } else if (_fIds.size() > kLinearSize) {
      _fPlaces = std::make_unique<CHashIndex>();
      for (uint32_t each = 0; each < _fIds.size(); ++each) {
        _fPlaces->Insert(_fIds[each], each);
      }
    }
    return true;
  }

  // True if the number was in the set.
  bool Erase(uint32_t id) {
    const uint32_t place = PlaceOf(id);
    if (place == kNone) {
      return false;
    }
    const uint32_t last = _fIds.back();
    const auto last_place = static_cast<uint32_t>(_fIds.size() - 1);
    if (_fPlaces != nullptr) {
      _fPlaces->Erase(id, place);
      if (place != last_place) {
        _fPlaces->Erase(last, last_place);
        _fPlaces->Insert(last, place);
      }
    }
    _fIds[place] = last;
    _fIds.pop_back();
    return true;
  }

  size_t MemoryUse() const {
    return _fIds.capacity() * sizeof(uint32_t) +
           (_fPlaces == nullptr ? 0 : sizeof(CHashIndex) + _fPlaces->MemoryUse());
  }

 private:
  static constexpr size_t kLinearSize = 16;
  static constexpr uint32_t kNone = CHashIndex::kNone;

  uint32_t PlaceOf(uint32_t id) const {
    if (_fPlaces != nullptr) {
      return _fPlaces->Find(id, [&](uint32_t place) { return _fIds[place] == id; });
    }
    for (uint32_t place = 0; place < _fIds.size(); ++place) {
      if (_fIds[place] == id) {
        return place;
      }
    }
    return kNone;
  }

  std::vector<uint32_t> _fIds;
  std::unique_ptr<CHashIndex> _fPlaces;  // of all members, once there were more than kLinearSize
};

}  // namespace pysource
