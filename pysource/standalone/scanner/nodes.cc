#include "pysource/standalone/scanner/nodes.h"

#include "pysource/standalone/scanner/itemtext.h"

namespace pysource::standalone {

NodeIndex Unwrapped(const CSyntaxTree& tree, NodeIndex node) {
  while (tree[node].tag == Tag::kParenthesized && tree.FirstChild(node) != kNoNode) {
    node = tree.FirstChild(node);
  }
  return node;
}

NodeIndex UnwrappedTarget(const CSyntaxTree& tree, NodeIndex target) {
  while (true) {
    const NodeIndex child = tree.FirstChild(target);
    if (child == kNoNode) {
      return target;
    }
    const auto has_comma_behind = [&tree, target, child] {
      const uint32_t begin = tree[child].end;
      return tree.Source().substr(begin, tree[target].end - begin).find(',') != BytesView::npos;
    };
    const Tag tag = tree[target].tag;
    const bool is_pair_of_parentheses =
        tag == Tag::kParenthesized ||
        (tag == Tag::kTuplePattern && tree[child].next == tree[target].next && !has_comma_behind());
    if (!is_pair_of_parentheses) {
      return target;
    }
    target = child;
  }
}

bool IsDotted(const CSyntaxTree& tree, NodeIndex node) {
  if (tree.Text(node).size() > kMostExpressionText) {
    return false;
  }
  const NodeIndex whole = node;
  while (tree[node].tag == Tag::kAttribute && tree.FirstChild(node) != kNoNode) {
    node = tree.FirstChild(node);
  }
  if (node != whole && IsSplat(tree[node].tag) && tree.FirstChild(node) != kNoNode) {
    node = tree.FirstChild(node);  // "*a.b" as a target
  }
  return tree[node].tag == Tag::kIdentifier;
}

bool HasSplat(const CSyntaxTree& tree, NodeIndex sequence) {
  for (const NodeIndex child : tree.Children(sequence)) {
    if (IsSplat(tree[child].tag)) {
      return true;
    }
  }
  return false;
}

bool IsRestTarget(const CSyntaxTree& tree, NodeIndex target) {
  while ((tree[target].tag == Tag::kAttribute || tree[target].tag == Tag::kSubscript) &&
         tree.FirstChild(target) != kNoNode) {
    target = tree.FirstChild(target);
  }
  return IsSplat(tree[target].tag);
}

bool IsPrimary(Tag tag) {
  switch (tag) {
    case Tag::kIdentifier:
    case Tag::kAttribute:
    case Tag::kSubscript:
    case Tag::kCall:
    case Tag::kParenthesized:
    case Tag::kTuple:
    case Tag::kList:
    case Tag::kSet:
    case Tag::kDictionary:
    case Tag::kListComprehension:
    case Tag::kSetComprehension:
    case Tag::kDictionaryComprehension:
    case Tag::kGenerator:
    case Tag::kString:
    case Tag::kTrue:
    case Tag::kFalse:
    case Tag::kNone:
    case Tag::kEllipsis:
      return true;
    default:
      return false;
  }
}

bool HasInterpolation(const CSyntaxTree& tree, NodeIndex string) {
  for (NodeIndex i = string + 1; i < tree[string].next; ++i) {
    if (tree[i].tag == Tag::kInterpolation) {
      return true;
    }
  }
  return false;
}

bool IsPlainLiteral(const CSyntaxTree& tree, NodeIndex node) {
  switch (tree[node].tag) {
    case Tag::kString:
    case Tag::kConcatenatedString:
    case Tag::kInteger:
    case Tag::kFloat:
    case Tag::kTrue:
    case Tag::kFalse:
    case Tag::kNone:
    case Tag::kUnary:
      return !LiteralClass(tree, node).empty();
    default:
      return false;
  }
}

TextView LiteralClass(const CSyntaxTree& tree, NodeIndex node) {
  switch (tree[node].tag) {
    case Tag::kInteger:
    case Tag::kFloat: {
      const BytesView text = tree.Text(node);
      if (text.ends_with('j') || text.ends_with('J')) {
        return "complex";
      }
      return tree[node].tag == Tag::kInteger ? "int" : "float";
    }
    case Tag::kUnary: {
      const NodeIndex operand = tree.FirstChild(node);
      return operand != kNoNode &&
                     (tree[operand].tag == Tag::kInteger || tree[operand].tag == Tag::kFloat)
                 ? LiteralClass(tree, operand)
                 : TextView();
    }
    case Tag::kConcatenatedString: {
      const NodeIndex first = tree.FirstChild(node);
      return first == kNoNode ? TextView() : LiteralClass(tree, first);
    }
    case Tag::kString: {
      const BytesView text = tree.Text(node);
      const BytesView prefix = text.substr(0, text.find_first_of("\"'"));
      return prefix.find_first_of("bB") != BytesView::npos ? "bytes" : "str";
    }
    case Tag::kTrue:
    case Tag::kFalse:
      return "bool";
    case Tag::kNone:
      return "NoneType";
    case Tag::kEllipsis:
      return "ellipsis";
    case Tag::kList:
    case Tag::kListComprehension:
      return "list";
    case Tag::kTuple:
    case Tag::kExpressionList:
      return "tuple";
    case Tag::kSet:
    case Tag::kSetComprehension:
      return "set";
    case Tag::kDictionary:
    case Tag::kDictionaryComprehension:
      return "dict";
    default:
      return {};
  }
}

}  // namespace pysource::standalone
