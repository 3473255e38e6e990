// Takes a target apart: "a, (b, *c) = value" binds a to value[0], b to value[1][0], and c to a
// list. Where the value is a display of as many elements, each target gets its element.
#pragma once

#include <vector>

#include "pysource/host/text.h"
#include "pysource/standalone/scanner/syntaxtree.h"
#include "pysource/standalone/scanner/values.h"

namespace pysource::standalone {

class CTargets {
 public:
  // A target that is no sequence, and what it is bound to.
  struct CBound {
    NodeIndex target = kNoNode;  // with its star, if it has one
    CValue value;                // its path holds until the next one
  };

  // Begins with the single targets of `target`, in the order of the source.
  void Begin(const CSyntaxTree& tree, NodeIndex target, const CValue& value);
  // The next one; false after the last.
  bool Next(CBound& bound);

 private:
  // A sequence of targets, and what of the value it takes apart.
  struct CFrame {
    NodeIndex end = kNoNode;
    NodeIndex node = kNoNode;     // of the value; kNoNode when nothing is known
    NodeIndex element = kNoNode;  // the next one of the value, when both sides match one by one
    size_t path_begin = 0;        // the part of `node`, in _fPath
    size_t path_end = 0;
    uint32_t position = 0;  // of the next target
    uint32_t count = 0;
    bool after_rest = false;  // positions behind a starred target count from the end
  };

  void Push(NodeIndex sequence, NodeIndex node, TextView path);
  CValue NextPart(CFrame& frame);

  const CSyntaxTree* _fTree = nullptr;
  CBound _fSingle;           // a target that is no sequence, until it is given
  NodeIndex _fAt = kNoNode;  // where the innermost sequence stands
  uint32_t _fMeantIn = kNoIndex;
  std::vector<CFrame> _fFrames;  // the sequences from the outermost to that
  Text _fPath;
};

}  // namespace pysource::standalone
