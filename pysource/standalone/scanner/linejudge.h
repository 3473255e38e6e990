// How wrong a piece of source looks, line by line.
#pragma once

#include <cstdint>
#include <vector>

#include "pysource/host/text.h"
#include "pysource/standalone/scanner/blockstructure.h"
#include "pysource/standalone/scanner/linecheck.h"
#include "pysource/standalone/scanner/logicallines.h"

namespace pysource::standalone {

// The sum of what is wrong with the logical lines of `text`, of which `before` tells the blocks
// that it stands in; 0 for valid source. Stops where the sum is more than `limit`.
int Badness(BytesView text, CBlockStructure before, int limit);

// Whether a string of the line goes over line ends.
bool HasLongString(BytesView source, const std::vector<CTextSpan>& spans);

}  // namespace pysource::standalone
