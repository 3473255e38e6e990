// Text of expressions as info bytes can hold it.
//
// Items are separated by ";" at nesting depth zero, so what stands in one must be balanced and free
// of ";" whatever the source looks like. White space, which comments and line breaks count as, is
// dropped but for one space between two words ("not c", "a if b else c"). A string stays as it is
// unless its brackets or a ";" in it would spoil that: then these become "_". Brackets that are
// missing are closed and those too many left out; and a long text is cut off.
#pragma once

#include "pysource/host/location.h"
#include "pysource/host/text.h"

namespace pysource::standalone {

// Where the text of an expression is cut off (with "..." and the brackets that are still open). Of
// the expressions in the standard library's values, 99 of 100 have less than 85 bytes.
inline constexpr size_t kMostExpressionText = 256;

// Appends the text of the expression that is `source`.
void AppendExpressionText(BytesView source, Bytes& out);

// Appends an item of `scope` as it stands in a record for another scope or, with a location, for
// another file: with its context, unless it means the same everywhere.
void AppendQualified(BytesView item, Loc loc, TextView scope, Bytes& out);

// Whether a "=" stands in the text outside of brackets and strings.
bool HasBareEquals(BytesView text);

}  // namespace pysource::standalone
