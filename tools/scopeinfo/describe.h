// Info bytes in words.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "pysource/host/text.h"

namespace pysource::tools {

// One alternative of what a name can be.
struct CAlternative {
  std::optional<int> line;  // of the binding; absent when it is not known
  const char* kind = "";    // a word or two: "class", "int literal" is kind "literal", value "int"
  Text value;
  Text from;  // the scope, and the file, whose names the value speaks of; empty: the name's own
};

// The alternatives of the value, in its order. Lines of bindings belong to what follows them; a
// binding of which nothing is known is an alternative "set" of its own.
std::vector<CAlternative> DescribeInfoBytes(BytesView ibytes);

// What stands between the brackets of a definition or class, as a person writes it:
// "self, a, /, b=..., *, c".
Text ReadableArguments(BytesView inside);

}  // namespace pysource::tools
