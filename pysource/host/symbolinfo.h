// The vocabulary of scope names and info bytes, all of it. A file that is included widely includes
// the part that it needs instead: kinds.h changes with every new kind, the others hardly ever.
//
//   scopenames.h   names of scopes, and the suffixes that tell instance scopes and definitions apart
//   infobytes.h    values as lists of items: splitting, joining, qualifying
//   kinds.h        the table of kinds: letter, words, what an item of the kind does
//   items.h        the items of a value, taken apart: context, kind, body, line
//   bodies.h       the bodies of imports, definitions and classes
//
// Nothing else spells a prefix, a kind byte or a suffix, or searches a value for one.
#pragma once

#include "pysource/host/symbolinfo/bodies.h"
#include "pysource/host/symbolinfo/infobytes.h"
#include "pysource/host/symbolinfo/items.h"
#include "pysource/host/symbolinfo/kinds.h"
#include "pysource/host/symbolinfo/scopenames.h"
