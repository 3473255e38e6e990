// Finds the separators in a string: space ( ) , . [ ]
//
// Most strings are names of about ten bytes without a separator. So one search covers up to 64
// bytes and returns one bit for each, and takes sixteen bytes in a step where the processor can.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "pysource/host/text.h"
#include "pysource/host/words.h"

namespace pysource::scopeinfo {

inline constexpr BytesView kSeparators = " (),.[]";
inline constexpr size_t kMostSearched = 64;

#if defined(__SSE2__)

inline uint32_t SeparatorsOf16(__m128i bytes) noexcept {
  const auto equal = [](__m128i a, char c) { return _mm_cmpeq_epi8(a, _mm_set1_epi8(c)); };
  // Two separators that differ in one bit are found with one comparison, without that bit.
  const __m128i round_bracket = equal(_mm_and_si128(bytes, _mm_set1_epi8('\xFE')), '(');
  const __m128i comma_or_point = equal(_mm_and_si128(bytes, _mm_set1_epi8('\xFD')), ',');
  const __m128i square_bracket = _mm_or_si128(equal(bytes, '['), equal(bytes, ']'));
  const __m128i any = _mm_or_si128(_mm_or_si128(round_bracket, comma_or_point),
                                   _mm_or_si128(square_bracket, equal(bytes, ' ')));
  return static_cast<uint32_t>(_mm_movemask_epi8(any));
}

// Bit i is set when byte i is a separator.
// REQUIRES: `size` is at least kWordSize and at most kMostSearched.
inline uint64_t SeparatorsOf(const char* at, size_t size) noexcept {
  const auto load = [at](size_t i) { return reinterpret_cast<const __m128i*>(at + i); };
  if (size >= 16) {
    // The last step overlaps the one before it.
    uint64_t found = uint64_t{SeparatorsOf16(_mm_loadu_si128(load(size - 16)))} << (size - 16);
    for (size_t i = 0; i + 16 < size; i += 16) {
      found |= uint64_t{SeparatorsOf16(_mm_loadu_si128(load(i)))} << i;
    }
    return found;
  }
  const uint32_t found = SeparatorsOf16(
      _mm_unpacklo_epi64(_mm_loadl_epi64(load(0)), _mm_loadl_epi64(load(size - kWordSize))));
  return (found & 0xFF) | found >> 8 << (size - kWordSize);
}

#else

inline uint64_t SeparatorsOf(const char* at, size_t size) noexcept {
  constexpr auto kIsSeparator = [] {
    std::array<bool, 256> is_separator{};
    for (const char c : kSeparators) {
      is_separator[static_cast<unsigned char>(c)] = true;
    }
    return is_separator;
  }();
  uint64_t found = 0;
  for (size_t i = 0; i < size; ++i) {
    found |= uint64_t{kIsSeparator[static_cast<unsigned char>(at[i])]} << i;
  }
  return found;
}

#endif

}  // namespace pysource::scopeinfo
