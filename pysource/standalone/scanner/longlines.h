// Logical lines that are too much for the parser.
#pragma once

#include <optional>

#include "pysource/host/text.h"
#include "pysource/standalone/scanner/logicallines.h"

namespace pysource::standalone {

// The beginning of a line that stands for all of it.
struct CLineCut {
  uint32_t end;   // of what is left of the line
  Bytes closing;  // what has to follow there to close the strings and brackets that are open
};

// Where the line has to be cut; absent when the parser can have all of it. That is so for a line
// that Python accepts unless it has more than half a million bytes: a table, of which the first
// thousands of elements say enough. REQUIRES: the line is one of `source`.
std::optional<CLineCut> CutLongLine(BytesView source, const CLogicalLine& line);

}  // namespace pysource::standalone
