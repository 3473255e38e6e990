// Operations on short runs of bytes as one or two 64-bit words: a name of the usual length is
// compared, hashed and copied with a few instructions instead of a call or a loop.
//
// The first byte is the lowest byte of a word, whatever the byte order of the machine.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace pysource {

inline constexpr size_t kWordSize = 8;

// The eight bytes at `at`.
inline uint64_t LoadWord(const char* at) noexcept {
  uint64_t word;
  std::memcpy(&word, at, sizeof(word));
  return std::endian::native == std::endian::little ? word : __builtin_bswap64(word);
}

inline void StoreWord(char* at, uint64_t word) noexcept {
  if (std::endian::native != std::endian::little) {
    word = __builtin_bswap64(word);
  }
  std::memcpy(at, &word, sizeof(word));
}

// The first `size` bytes of the word, followed by zeros; the whole word for eight and more.
// REQUIRES: `size` is at least one.
inline uint64_t FirstBytes(uint64_t word, size_t size) noexcept {
  return word & (~uint64_t{0} >> (8 * (kWordSize - std::min(size, kWordSize))));
}

// The `size` bytes at `at`, followed by zeros. The loads overlap, so there is no loop, and no byte
// beyond them is read.
// REQUIRES: `size` is less than eight.
inline uint64_t LoadShort(const char* at, size_t size) noexcept {
  const auto byte = [at](size_t i) -> uint64_t { return static_cast<unsigned char>(at[i]); };
  if (size >= 4) {
    const auto half = [at](size_t i) -> uint64_t {
      uint32_t bytes;
      std::memcpy(&bytes, at + i, sizeof(bytes));
      return std::endian::native == std::endian::little ? bytes : __builtin_bswap32(bytes);
    };
    return half(0) | half(size - 4) << (8 * (size - 4));
  }
  if (size == 0) {
    return 0;
  }
  return byte(0) | byte(size / 2) << (8 * (size / 2)) | byte(size - 1) << (8 * (size - 1));
}

// Whether `a` is less than `b` in byte order. Fast, since most names differ in their first eight
// bytes.
inline bool IsBelow(std::string_view a, std::string_view b) noexcept {
  const auto first = [](std::string_view s) {
    const uint64_t word =
        s.size() >= kWordSize ? LoadWord(s.data()) : LoadShort(s.data(), s.size());
    return __builtin_bswap64(word);
  };
  const uint64_t first_a = first(a);
  const uint64_t first_b = first(b);
  return first_a != first_b ? first_a < first_b : a < b;
}

// Copies `size` bytes; the last word can overlap the one before it. For data that is mostly so
// short that a call costs more than the copying.
// REQUIRES: `size` is at least eight.
inline void CopyWords(char* to, const char* from, size_t size) noexcept {
  for (size_t i = 0; i + kWordSize < size; i += kWordSize) {
    std::memcpy(to + i, from + i, kWordSize);
  }
  std::memcpy(to + size - kWordSize, from + size - kWordSize, kWordSize);
}

}  // namespace pysource
