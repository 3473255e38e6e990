// Small operations that sit on hot paths.
#pragma once

#include <bit>
#include <cstdint>
#include <optional>
#include <vector>

#include "pysource/host/hashindex.h"
#include "pysource/host/location.h"
#include "pysource/host/text.h"

namespace pysource {

// Whether the two are the same object: identity, not equality.
inline bool LocationsEqual(Loc loc1, Loc loc2) { return loc1.get() == loc2.get(); }

// The present time in seconds since the epoch.
double GetNowTime();
// Whether the present time is at or past `end_time`.
inline bool OutOfTime(double end_time) { return GetNowTime() >= end_time; }

inline double DoubleValueForULongLongBits(uint64_t l) { return std::bit_cast<double>(l); }
inline uint64_t ULongLongValueForDoubleBits(double f) { return std::bit_cast<uint64_t>(f); }
// As the first, for a signed integer, which is taken modulo two to the 64: the bits of every
// negative double are a number that a signed reader hands over as negative.
inline double DoubleValueForPyIntBits(int64_t l) {
  return std::bit_cast<double>(static_cast<uint64_t>(l));
}

// Adds the members of `to_add` to `set_obj`; returns whether any were new.
template <class Set, class Members>
bool PySet_InplaceOr(Set& set_obj, const Members& to_add) {
  const auto before = set_obj.size();
  set_obj.insert(to_add.begin(), to_add.end());
  return set_obj.size() != before;
}

// The character classes of the C library, over one byte.
bool IsDigit(char c);
bool IsAlnum(char c);

// Whether `sub` occurs in `whole`. Each of them ends at its first NUL. Throws CTypeError with "Both
// sub and whole must be strings" when one is absent.
bool StrInStr(std::optional<BytesView> sub, std::optional<BytesView> whole);

// The token table of a message in the making: numbers each distinct piece of bytes in the order of
// first use. Keeps its memory when it is cleared, so a table that is used again allocates nothing.
class CBytesTokenizer {
 public:
  CBytesTokenizer();

  // The index of the token; a new one gets the present size and is copied.
  uint32_t GetTokenIndex(BytesView token) {
    const uint64_t hash = HashBytes(token);
    const auto tag = static_cast<uint32_t>(hash >> 32);
    for (size_t at = hash & _fMask;; at = (at + 1) & _fMask) {
      const Cell& cell = _fCells[at];
      if (cell.round != _fRound) {
        return AddToken(token, at, tag);
      }
      if (cell.tag == tag && Token(cell.index) == token) {
        return cell.index;
      }
    }
  }

  size_t size() const noexcept { return _fEnds.size(); }
  bool empty() const noexcept { return _fEnds.empty(); }
  // The bytes of a token, good until the next new one.
  BytesView Token(size_t index) const {
    const size_t begin = index == 0 ? 0 : _fEnds[index - 1];
    return BytesView(_fText).substr(begin, _fEnds[index] - begin);
  }
  void clear();

 private:
  // A cell counts only when it was filled in the present round: clearing is one increment.
  struct Cell {
    uint32_t tag;
    uint32_t index;
    uint32_t round;
  };
  uint32_t AddToken(BytesView token, size_t cell, uint32_t tag);
  void Grow();

  std::vector<Cell> _fCells;  // open addressing; size is a power of two
  size_t _fMask = 0;
  uint32_t _fRound = 1;
  Bytes _fText;                // the tokens one after the other, in index order
  std::vector<size_t> _fEnds;  // where each token ends in _fText
};

}  // namespace pysource
