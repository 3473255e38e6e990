// What the tokens of one logical line tell about whether it is whole, without a parser.
//
// A line that Python accepts is never said to lack anything. The reverse does not hold: this looks
// at how a line begins and ends and at tokens that cannot stand side by side, not at grammar.
#pragma once

#include <cstdint>
#include <vector>

#include "pysource/host/text.h"
#include "pysource/standalone/scanner/logicallines.h"

namespace pysource::standalone {

struct CLineCheck {
  // It begins with a keyword that needs a ":" and a block or statement behind it.
  bool is_header = false;
  bool has_colon = false;
  // The last token has to be followed by something: an operator, "import", the "," of an import.
  bool unfinished = false;
  // It lacks a word: "from m" and no more, "for x:".
  bool lacks_word = false;
  // A name, literal or bracket stands directly behind another, as in prose.
  bool is_prose = false;
  bool has_in = false;  // outside of brackets
  bool has_import = false;
  uint32_t lambdas = 0;            // outside of brackets, whose ":" is missing
  bool ends_in_subscript = false;  // the last token is the "[" behind a value
  bool IsWhole() const { return !unfinished && !lacks_word && (!is_header || has_colon); }

  uint32_t last_token = 0;  // where it begins
};

// `spans` are the strings and comments of the line.
CLineCheck CheckLine(BytesView source, const CLogicalLine& line,
                     const std::vector<CTextSpan>& spans);

// Whether the line is certainly not whole, by a look at its first and last bytes alone wherever
// that is enough. Prose does not count.
bool LacksSomething(BytesView source, const CLogicalLine& line,
                    const std::vector<CTextSpan>& spans);

}  // namespace pysource::standalone
