// What a node is, and what is in it: questions about the list of nodes that need nothing else.
#pragma once

#include "pysource/host/text.h"
#include "pysource/standalone/scanner/syntaxtree.h"

namespace pysource::standalone {

inline bool IsSequence(Tag tag) {
  return tag == Tag::kTuple || tag == Tag::kList || tag == Tag::kExpressionList;
}

inline bool IsTargetSequence(Tag tag) {
  return IsSequence(tag) || tag == Tag::kTuplePattern || tag == Tag::kListPattern ||
         tag == Tag::kPatternList;
}

inline bool IsSplat(Tag tag) { return tag == Tag::kListSplatPattern || tag == Tag::kListSplat; }

// The expression without the parentheses around it.
NodeIndex Unwrapped(const CSyntaxTree& tree, NodeIndex node);
// The same of a target, which the parser can take for a pattern: "(x) = 1".
NodeIndex UnwrappedTarget(const CSyntaxTree& tree, NodeIndex target);

// Whether it is a name, or an attribute of one, and short enough for an item.
bool IsDotted(const CSyntaxTree& tree, NodeIndex node);
bool HasSplat(const CSyntaxTree& tree, NodeIndex sequence);
// Whether the target takes what the others of its sequence leave. The parser gives the star of
// "*a.b" to a alone.
bool IsRestTarget(const CSyntaxTree& tree, NodeIndex target);
// Whether "[0]" can follow the expression and mean a part of all of it.
bool IsPrimary(Tag tag);
// Whether the string holds expressions.
bool HasInterpolation(const CSyntaxTree& tree, NodeIndex string);

// The builtin class of a literal or a display; empty for anything else.
TextView LiteralClass(const CSyntaxTree& tree, NodeIndex node);
// Whether it is a literal that is no display: its text is its value.
bool IsPlainLiteral(const CSyntaxTree& tree, NodeIndex node);

}  // namespace pysource::standalone
