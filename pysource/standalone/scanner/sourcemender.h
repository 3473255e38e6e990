// Mends source that somebody is typing, before the parser sees it.
//
// A parser that meets `foo(` or `"""` without an end takes what follows for its inside, and the
// definitions there are lost. Indentation and words tell more: this looks at logical lines
// (logicallines.h), finds the first one that cannot be Python's (a bracket still open where a
// "return" begins, an "else" without an "if", a line that ends in "="), and tries what a person
// would: to close what is open behind one of the lines above, to open what is closed below, to give
// a header its ":", to take the line's beginning alone. What leaves the lines that follow with the
// least wrong is taken. So the definitions around the damage stay known, and the names in the
// damaged line as far as it goes.
//
// Source that Python accepts is never changed. Lines stay where they are: text is changed within
// lines only. Words stay as they are, but the columns of what stands behind a change move.
//
// Time is in proportion to the source: what takes longer to mend is left to the parser.
#pragma once

#include <cstddef>
#include <cstdint>

#include "pysource/host/text.h"

namespace pysource::standalone {

struct CMendedSource {
  BytesView source;        // the given one, or `copy` where something was mended
  size_t count = 0;        // changes, and lines that are wrong and were left alone
  uint32_t first_row = 0;  // of the first of them, counted from 0
};

// Mends source in which brackets, strings, indentation or the ends of lines show that it is not
// whole; a fast look that all source goes through. `copy` is scratch memory; the result is good as
// long as both arguments.
CMendedSource MendSource(BytesView source, Bytes& copy);

// Mends source with which the parser was not content though MendSource was.
CMendedSource MendRejectedSource(BytesView source, Bytes& copy);

}  // namespace pysource::standalone
