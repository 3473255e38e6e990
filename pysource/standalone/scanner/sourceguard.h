// Makes text of whatever bytes a source has.
//
// What is not UTF-8 and NUL become "?", a lone carriage return (the line end of old) becomes a line
// feed. No byte moves, so that positions and lines stay true, and all text that is taken from the
// source is well-formed. A program that Python takes has none of these but the carriage returns.
#pragma once

#include "pysource/host/text.h"

namespace pysource::standalone {

// The source, or `copy` where something had to be mended. `copy` is scratch memory; the result is
// good as long as both arguments.
BytesView GuardSource(BytesView source, Bytes& copy);

}  // namespace pysource::standalone
