// Hashing of short byte strings and of several fields at once.
//
// Names are a few bytes long and hashed often, so the hash is inline and takes eight bytes a step:
// the call of std::hash, which is out of line, costs more than the rest of a look-up. The values
// are the same in every run and are never stored.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace pysource {

// Mixes the bits of `value`, so that the low and the high bits of the result are equally good.
inline uint64_t MixHash(uint64_t value) noexcept {
  value ^= value >> 32;
  value *= 0x9E3779B97F4A7C15ULL;
  value ^= value >> 29;
  return value;
}

inline uint64_t CombineHash(uint64_t seed, uint64_t value) noexcept {
  return MixHash(seed * 0xC2B2AE3D27D4EB4FULL + value);
}

inline uint64_t HashBytes(std::string_view bytes) noexcept {
  const char* at = bytes.data();
  size_t left = bytes.size();
  uint64_t hash = 0x27D4EB2F165667C5ULL ^ left;
  while (left >= 8) {
    uint64_t word;
    std::memcpy(&word, at, 8);
    hash = CombineHash(hash, word);
    at += 8;
    left -= 8;
  }
  if (left != 0) {
    uint64_t word = 0;
    for (size_t i = 0; i < left; ++i) {
      word |= static_cast<uint64_t>(static_cast<unsigned char>(at[i])) << (8 * i);
    }
    hash = CombineHash(hash, word);
  }
  return hash;
}

}  // namespace pysource
