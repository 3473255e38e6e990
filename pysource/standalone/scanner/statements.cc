#include "pysource/standalone/scanner/statements.h"

namespace pysource::standalone {

uint32_t LineBegin(BytesView source, const CLogicalLine& line) {
  uint32_t begin = line.begin;
  while (begin != 0 &&
         (source[begin - 1] == ' ' || source[begin - 1] == '\t' || source[begin - 1] == '\f')) {
    --begin;
  }
  return begin;
}

CStatements::CStatements(BytesView source, const CSourceRange& range, bool flat)
    : _fSource(source.substr(0, range.end)),
      _fLines(_fSource, range.begin, range.row),
      _fFlat(flat) {}

bool CStatements::Next() {
  if (!_fLines.Next(_fLine)) {
    return false;
  }
  _fBegin = LineBegin(_fSource, _fLine);
  if (_fFlat) {
    _fBeginsStatement = true;
    return true;
  }
  if (_fLine.indent > _fIndent) {
    _fBeginsStatement = false;
    return true;
  }
  // The first line of the block, or one that is too far out for it: then its fellows are, too.
  _fIndent = _fLine.indent;
  const FirstWord first = _fLine.first;
  const bool continues = first == FirstWord::kElif || first == FirstWord::kElse ||
                         first == FirstWord::kExcept || first == FirstWord::kFinally;
  _fBeginsStatement = !continues && !_fAfterDecorator;
  _fAfterDecorator = first == FirstWord::kDecorator;
  return true;
}

}  // namespace pysource::standalone
