// Makes source fit for the parser, whatever it is.
//
// Two things are mended, both without moving a byte, so that positions and lines stay true:
//
// - Bytes that are no text: what is not UTF-8 and NUL become "?", a lone carriage return (the line
//   end of old) becomes a line feed. All text taken from the source is then well-formed.
// - Nesting without end. The parser keeps what it has not understood yet on a stack, counts the
//   children of a node in 16 bits, and corrupts its memory beyond 65535 of them (release 0.20.7);
//   long before that its time grows with the square of the depth. So brackets deeper than
//   kMostNesting are blanked, as is the rest of a statement that goes on for more than
//   kMostPending words and operators without a comma, and long runs of comments. Python itself
//   gives up at 200 brackets; no program that runs is touched.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pysource/host/text.h"

namespace pysource::standalone {

inline constexpr size_t kMostNesting = 200;
// A counted token can stand for up to five entries on the parser's stack (with the tokens that it
// puts in where it recovers from errors), so this is a fifth of what the stack may hold, halved.
inline constexpr size_t kMostPending = 6000;

struct CGuardedSource {
  BytesView source;            // the given one, or `copy` where something was mended
  size_t blanked = 0;          // places where nesting was cut off
  uint32_t first_blanked = 0;  // the byte where the first of them begins
};

// `copy` is scratch memory; the result is good as long as both arguments.
CGuardedSource GuardSource(BytesView source, Bytes& copy);

}  // namespace pysource::standalone
