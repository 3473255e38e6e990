// Small functions over text and bytes.
#pragma once

#include <cstdint>

#include "pysource/host/text.h"

namespace pysource {

// Text and bytes are one type here, so these do nothing but say which is meant.
inline BytesView AsUtf8(TextView s) { return s; }
inline TextView AsStr(BytesView s) { return s; }
// The text of the bytes from `begin` up to `end`, or what there is of it.
inline TextView AsStr(BytesView s, size_t begin, size_t end) {
  return begin < end && begin < s.size() ? s.substr(begin, end - begin) : TextView();
}

// The UTF-8 bytes of a text, without a copy.
inline BytesView GetUtf8Ptr(TextView u) { return u; }

// The byte at `i`, counting from the end for negative `i`. Throws CValueError when there is none.
uint8_t OrdAt(BytesView s, int64_t i);
char GetOneByte(BytesView s, size_t i);

// The URL in the form that can stand in info bytes. Every byte outside A-Z a-z 0-9 - . _ ~ / :
// becomes "%" and two upper-case hex digits, so there is no space, ";", bracket or NUL in the
// result.
Bytes EncodeUrl(BytesView url);

// Whether the bytes are well-formed UTF-8 (no surrogates, no overlong forms).
bool IsUtf8(BytesView s) noexcept;

}  // namespace pysource
