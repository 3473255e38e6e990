// Serves logical lines to the parser so that it nests them as Python does.
//
// The grammar takes a line end for the end of a block wherever it cannot rule that out, within
// brackets too ("(a." and then "b" further left), and it keeps the columns of a block in one byte. So
// a continued line that begins left of its block is served with blanks in front, and lines that are
// indented very far are served nearer to the margin. Blanks within a string do no harm: its text is
// taken from the source.
#pragma once

#include <cstdint>
#include <vector>

#include "pysource/host/text.h"
#include "pysource/standalone/scanner/logicallines.h"
#include "pysource/standalone/scanner/servedtext.h"

namespace pysource::standalone {

// For the lines of one served text, in order.
class CLevels {
 public:
  // Appends source[begin, end): the line, and what stands between it and the last one.
  void Serve(BytesView source, uint32_t begin, uint32_t end, const CLogicalLine& line,
             CServedText& text);
  void Reset() { _fLevels.clear(); }

 private:
  struct CLevel {
    uint32_t indent;  // in columns of the source
    uint32_t shown;   // and as served
  };

  uint32_t ShownIndent(uint32_t indent);

  std::vector<CLevel> _fLevels;  // the blocks that the line is in
};

}  // namespace pysource::standalone
