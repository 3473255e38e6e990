// The statements of a block, one after the other, each with the blocks in it: where source can be
// cut so that the parts can be parsed by themselves.
#pragma once

#include <cstdint>

#include "pysource/host/text.h"
#include "pysource/standalone/scanner/logicallines.h"

namespace pysource::standalone {

// A part of the source: whole lines.
struct CSourceRange {
  uint32_t begin;
  uint32_t end;
  uint32_t row;  // of `begin`, counted from 0
};

// Where the physical line begins in which the logical line does; blanks alone lie between.
uint32_t LineBegin(BytesView source, const CLogicalLine& line);

// Goes through the logical lines of a range and says which of them begin a statement of the block
// that the range is: those that are indented no deeper than its first line, and neither continue a
// compound statement ("else") nor follow a decorator.
class CStatements {
 public:
  // With `flat`, every line counts as a statement.
  CStatements(BytesView source, const CSourceRange& range, bool flat);

  // The next line; false when there is none in the range.
  bool Next();
  const CLogicalLine& Line() const { return _fLine; }
  // Where the line begins, with its indentation.
  uint32_t Begin() const { return _fBegin; }
  bool BeginsStatement() const { return _fBeginsStatement; }

 private:
  const BytesView _fSource;
  CLogicalLines _fLines;
  const bool _fFlat;
  CLogicalLine _fLine;
  uint32_t _fBegin = 0;
  uint32_t _fIndent = UINT32_MAX;  // of the block
  bool _fBeginsStatement = false;
  bool _fAfterDecorator = false;
};

}  // namespace pysource::standalone
