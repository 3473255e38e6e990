// How the beginning of a logical line, as it stands when somebody is typing, becomes a whole one.
#pragma once

#include <cstddef>

#include "pysource/host/text.h"

namespace pysource::standalone {

// The line is its first `keep` bytes, and `text` behind them.
struct CCompletion {
  size_t keep = 0;
  Bytes text;
};

// Closes the strings and brackets of `line`, gives its operators what they lack (a "_", which no
// program looks up), and a header its ":". What cannot be completed becomes "pass". `x = self.` is
// then `x = self._`, `def f(a, b` is `def f(a, b):`, `from m import (a,` is `from m import (a,)`.
// The line begins with its first token; it may span physical lines.
CCompletion CompleteLine(BytesView line);

}  // namespace pysource::standalone
