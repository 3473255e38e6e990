// What the indentation and the first words of logical lines tell about each other: whether each
// line may follow those before it.
#pragma once

#include <cstdint>
#include <vector>

#include "pysource/standalone/scanner/logicallines.h"

namespace pysource::standalone {

// What is wrong with the place of a line; a valid program has none of it.
enum class Misplaced : uint8_t {
  kNot,
  kTooDeep,        // deeper than the line before, which opens no block
  kBetweenLevels,  // at columns that no block around has
  kNoBlock,        // not deeper than the line before, which opens a block
  kNoOpener,       // "else" and the like without the statement that it belongs to
  kNoHandler,      // behind the block of a "try" that has neither "except" nor "finally"
};

class CBlockStructure {
 public:
  // Takes the next line, and tells what is wrong with its place. Goes on from there as if that was
  // meant.
  Misplaced Add(const CLogicalLine& line);

  // How deep the line before is, and whether it opens a block.
  uint32_t Indent() const { return _fLevels.back().indent; }

 private:
  struct CLevel {
    uint32_t indent;
    FirstWord last;  // what the last statement of the block began with
  };

  std::vector<CLevel> _fLevels{{0, FirstWord::kOther}};
  bool _fOpensBlock = false;
};

}  // namespace pysource::standalone
