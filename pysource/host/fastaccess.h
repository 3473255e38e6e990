// Small operations on frequently executed paths.
#pragma once

#include <bit>
#include <cstdint>
#include <optional>

#include "pysource/host/bytestokenizer.h"
#include "pysource/host/location.h"
#include "pysource/host/text.h"

namespace pysource {

// Whether both are the same object: identity, not equality.
inline bool LocationsEqual(Loc loc1, Loc loc2) { return loc1.get() == loc2.get(); }

// The present time in seconds since the epoch.
double GetNowTime();
// Whether the present time is at or past `end_time`.
inline bool OutOfTime(double end_time) { return GetNowTime() >= end_time; }

inline double DoubleValueForULongLongBits(uint64_t l) { return std::bit_cast<double>(l); }
inline uint64_t ULongLongValueForDoubleBits(double f) { return std::bit_cast<uint64_t>(f); }
// Like DoubleValueForULongLongBits, for a signed integer, taken modulo two to the 64: a reader of
// signed integers returns the bits of a negative double as a negative number.
inline double DoubleValueForPyIntBits(int64_t l) {
  return std::bit_cast<double>(static_cast<uint64_t>(l));
}

// Adds the members of `to_add` to `set_obj`; true if any of them were new.
template <class Set, class Members>
bool PySet_InplaceOr(Set& set_obj, const Members& to_add) {
  const auto before = set_obj.size();
  set_obj.insert(to_add.begin(), to_add.end());
  return set_obj.size() != before;
}

// The character classes of the C library, for one byte.
bool IsDigit(char c);
bool IsAlnum(char c);

// Whether `sub` occurs in `whole`, each taken up to its first NUL. Throws CTypeError with "Both sub
// and whole must be strings" when one is absent.
bool StrInStr(std::optional<BytesView> sub, std::optional<BytesView> whole);

}  // namespace pysource
