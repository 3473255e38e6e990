#include "pysource/standalone/scanner/blockstructure.h"

namespace pysource::standalone {
namespace {

bool MayFollow(FirstWord clause, FirstWord before) {
  using enum FirstWord;
  switch (clause) {
    case kElif:
      return before == kIf || before == kElif;
    case kElse:
      return before == kIf || before == kElif || before == kFor || before == kWhile ||
             before == kExcept || before == kAsync;
    case kExcept:
      return before == kTry || before == kExcept;
    case kFinally:
      return before == kTry || before == kExcept || before == kElse;
    default:
      return true;
  }
}

}  // namespace

Misplaced CBlockStructure::Add(const CLogicalLine& line) {
  Misplaced result = Misplaced::kNot;
  const bool deeper = line.indent > _fLevels.back().indent;
  if (deeper) {
    if (!_fOpensBlock) {
      result = Misplaced::kTooDeep;
    }
    _fLevels.push_back(CLevel{line.indent, FirstWord::kOther});
  } else if (_fOpensBlock) {
    result = Misplaced::kNoBlock;
  }
  while (line.indent < _fLevels.back().indent) {
    if (_fLevels.back().last == FirstWord::kTry) {
      result = Misplaced::kNoHandler;
    }
    _fLevels.pop_back();
    if (line.indent > _fLevels.back().indent) {
      result = Misplaced::kBetweenLevels;
      _fLevels.push_back(CLevel{line.indent, FirstWord::kOther});
    }
  }
  CLevel& level = _fLevels.back();
  if (!MayFollow(line.first, level.last)) {
    result = Misplaced::kNoOpener;
  } else if (level.last == FirstWord::kTry && line.first != FirstWord::kExcept &&
             line.first != FirstWord::kFinally) {
    result = Misplaced::kNoHandler;
  }
  level.last = line.first;
  _fOpensBlock = line.opens_block;
  return result;
}

}  // namespace pysource::standalone
