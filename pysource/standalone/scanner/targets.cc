#include "pysource/standalone/scanner/targets.h"

#include <algorithm>
#include <string>
#include <utility>

#include "pysource/standalone/scanner/nodes.h"

namespace pysource::standalone {
namespace {

// Deeper parts of a value than these are not told.
constexpr size_t kMostPathText = 64;

bool HasRest(const CSyntaxTree& tree, NodeIndex sequence) {
  const auto targets = tree.Children(sequence);
  return std::any_of(targets.begin(), targets.end(),
                     [&](NodeIndex target) { return IsRestTarget(tree, target); });
}

}  // namespace

void CTargets::Begin(const CSyntaxTree& tree, NodeIndex target, const CValue& value) {
  _fTree = &tree;
  _fFrames.clear();
  _fPath.clear();
  _fSingle = {};
  target = UnwrappedTarget(tree, target);
  if (!IsTargetSequence(tree[target].tag)) {
    _fSingle = {target, value};
    return;
  }
  _fMeantIn = value.meant_in;
  _fAt = target + 1;
  Push(target, value.node, value.path);
}

bool CTargets::Next(CBound& bound) {
  if (_fSingle.target != kNoNode) {
    bound = std::exchange(_fSingle, {});
    return true;
  }
  // Without recursion: sequences nest as deep as the source says.
  while (!_fFrames.empty()) {
    CFrame& frame = _fFrames.back();
    _fPath.resize(frame.path_end);
    if (_fAt >= frame.end) {
      _fPath.resize(frame.path_begin);
      _fFrames.pop_back();
      continue;
    }
    const CValue part = NextPart(frame);
    const NodeIndex child = UnwrappedTarget(*_fTree, _fAt);
    if (IsTargetSequence((*_fTree)[child].tag)) {
      const Text path(part.path);  // _fPath grows
      Push(child, part.node, path);
      _fAt = child + 1;
      continue;
    }
    frame.after_rest = frame.after_rest || IsRestTarget(*_fTree, child);
    _fAt = (*_fTree)[_fAt].next;
    bound = {child, part};
    return true;
  }
  return false;
}

// What the next target of the sequence is bound to.
CValue CTargets::NextPart(CFrame& frame) {
  CValue part;
  part.meant_in = _fMeantIn;
  if (frame.element != kNoNode) {
    part.node = frame.element;
    frame.element = _fTree->NextChild(frame.node, frame.element);
  } else if (frame.node != kNoNode) {
    const int64_t position =
        frame.after_rest ? int64_t{frame.position} - int64_t{frame.count} : int64_t{frame.position};
    _fPath += '[';
    _fPath += std::to_string(position);
    _fPath += ']';
    part.node = frame.node;
    part.path = TextView(_fPath).substr(frame.path_begin);
  }
  ++frame.position;
  return part;
}

void CTargets::Push(NodeIndex sequence, NodeIndex node, TextView path) {
  const CSyntaxTree& tree = *_fTree;
  CFrame frame;
  frame.end = tree[sequence].next;
  frame.count = static_cast<uint32_t>(tree.ChildCount(sequence));
  if (node != kNoNode && path.size() <= kMostPathText) {
    frame.node = Unwrapped(tree, node);
  }
  frame.path_begin = _fPath.size();
  _fPath += path;
  frame.path_end = _fPath.size();
  if (frame.node != kNoNode && path.empty() && IsSequence(tree[frame.node].tag) &&
      tree.ChildCount(frame.node) == frame.count && !HasSplat(tree, frame.node) &&
      !HasRest(tree, sequence)) {
    frame.element = tree.FirstChild(frame.node);
  }
  _fFrames.push_back(frame);
}

}  // namespace pysource::standalone
