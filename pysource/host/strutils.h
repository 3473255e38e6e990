// Small functions over text and bytes.
#pragma once

#include <cstdint>

#include "pysource/host/text.h"
#include "pysource/host/words.h"

namespace pysource {

// Text and bytes are the same type here, so these only show which is meant.
inline BytesView AsUtf8(TextView s) { return s; }
inline TextView AsStr(BytesView s) { return s; }
// The bytes from `begin` up to `end` as text, clipped to those that exist.
inline TextView AsStr(BytesView s, size_t begin, size_t end) {
  return begin < end && begin < s.size() ? s.substr(begin, end - begin) : TextView();
}

// The UTF-8 bytes of a text, without a copy.
inline BytesView GetUtf8Ptr(TextView u) { return u; }

// The byte at `i`, counted from the end for a negative `i`. Throws CValueError when there is none.
uint8_t OrdAt(BytesView s, int64_t i);
char GetOneByte(BytesView s, size_t i);

// The URL in a form that can be part of info bytes. Every byte outside A-Z a-z 0-9 - . _ ~ / :
// becomes "%" and two upper-case hex digits, so the result has no space, ";", bracket or NUL.
Bytes EncodeUrl(BytesView url);
// The URL back from that form: "%2F" is "/". A "%" that no two hex digits follow stays.
Bytes DecodeUrl(BytesView encoded);

// Whether no byte is above 127.
inline bool IsAscii(BytesView s) noexcept {
  uint64_t all = 0;
  if (s.size() < kWordSize) {
    all = LoadShort(s.data(), s.size());
  } else {
    for (size_t i = 0; i + kWordSize < s.size(); i += kWordSize) {
      all |= LoadWord(s.data() + i);
    }
    all |= LoadWord(s.data() + s.size() - kWordSize);
  }
  return (all & 0x8080808080808080ULL) == 0;
}

// Whether the bytes are well-formed UTF-8 (no surrogates, no overlong forms). For ASCII, as nearly
// all names are, this takes a few instructions.
bool IsUtf8Beyond127(BytesView s) noexcept;
inline bool IsUtf8(BytesView s) noexcept { return IsAscii(s) || IsUtf8Beyond127(s); }

}  // namespace pysource
