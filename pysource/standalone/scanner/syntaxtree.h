// A parsed file as a flat list of nodes.
//
// The parser's tree is walked once and copied into an array in the order of the source, without
// punctuation and comments. From then on everything is an index: the first child of node i is i +
// 1, its next sibling (if it has one) is Next(i), and all that is below it lies between. So the
// scanner looks ahead and back as it likes, at no cost and without recursion, however deep the code
// is nested; the parser's own calls for that search from the root or allocate.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <vector>

#include "pysource/host/text.h"

struct TSParser;
struct TSTree;

namespace pysource::standalone {

// What the scanner tells apart; the names of the grammar, in its order of subjects.
enum class Tag : uint8_t {
  kOther,
  kError,  // source that fits no rule; its children do
  kModule,
  kBlock,
  // statements
  kImport,
  kImportFrom,
  kFutureImport,
  kAssignment,
  kAugmented,
  kDelete,
  kGlobal,
  kNonlocal,
  kTypeAlias,
  kFor,
  kExcept,
  kExceptGroup,
  kCase,
  kFunction,
  kClass,
  kDecorated,
  // their parts
  kDottedName,
  kRelativeImport,
  kAliasedImport,
  kWildcardImport,
  kDecorator,
  kParameters,
  kLambdaParameters,
  kTypeParameters,
  kArguments,
  kKeywordArgument,
  kDefaultParameter,
  kTypedParameter,
  kTypedDefaultParameter,
  kType,
  kConstrainedType,
  kPair,
  // targets and patterns
  kTuplePattern,
  kListPattern,
  kPatternList,
  kListSplatPattern,
  kDictionarySplatPattern,
  kAsPattern,
  kAsPatternTarget,
  kCasePattern,
  kSplatPattern,
  kKeywordPattern,
  kClassPattern,
  // expressions
  kIdentifier,
  kAttribute,
  kSubscript,
  kCall,
  kLambda,
  kListComprehension,
  kSetComprehension,
  kDictionaryComprehension,
  kGenerator,
  kForIn,
  kNamed,
  kConditional,
  kBoolean,
  kUnary,
  kParenthesized,
  kExpressionList,
  kListSplat,
  kTuple,
  kList,
  kSet,
  kDictionary,
  kString,
  kConcatenatedString,
  kInteger,
  kFloat,
  kTrue,
  kFalse,
  kNone,
  kEllipsis,
  kInterpolation,
};

using NodeIndex = uint32_t;
inline constexpr NodeIndex kNoNode = 0xFFFFFFFF;

struct CNode {
  uint32_t begin;  // in bytes
  uint32_t end;
  NodeIndex next;  // of the first node that is not below this one
  uint32_t row;    // counted from 0
  Tag tag;
  // Room for whoever walks the list; 0 at first.
  uint8_t mark;
};

// The parser and the list, used again for one file after the other.
class CSyntaxTree {
 public:
  CSyntaxTree();
  ~CSyntaxTree();
  CSyntaxTree(const CSyntaxTree&) = delete;
  CSyntaxTree& operator=(const CSyntaxTree&) = delete;

  // Parses the source, which must stay as long as nodes are looked at, and be fit for the parser
  // (sourceguard.h). Node 0 is the whole file. False when the parser did not come to an end in good
  // time: then there is no other node.
  bool Parse(BytesView source);

  NodeIndex Size() const { return static_cast<NodeIndex>(_fNodes.size()); }
  CNode& operator[](NodeIndex i) { return _fNodes[i]; }
  const CNode& operator[](NodeIndex i) const { return _fNodes[i]; }
  BytesView Text(NodeIndex i) const {
    const CNode& node = _fNodes[i];
    return _fSource.substr(node.begin, node.end - node.begin);
  }
  BytesView Source() const { return _fSource; }

  // The first child, or kNoNode.
  NodeIndex FirstChild(NodeIndex i) const { return i + 1 < _fNodes[i].next ? i + 1 : kNoNode; }
  // The child of `parent` that follows `child`, or kNoNode.
  NodeIndex NextChild(NodeIndex parent, NodeIndex child) const {
    const NodeIndex next = _fNodes[child].next;
    return next < _fNodes[parent].next ? next : kNoNode;
  }

  // The children in order, to be gone through with `for`.
  class CChildren;
  CChildren Children(NodeIndex parent) const;
  // The first child of that kind, or kNoNode.
  NodeIndex Child(NodeIndex parent, Tag tag) const;
  NodeIndex LastChild(NodeIndex parent) const;
  size_t ChildCount(NodeIndex parent) const;

  // Places that fit no rule, or where something is missing.
  size_t ErrorCount() const { return _fErrorCount; }
  // The line of the first one, counted from 1; 0 when there is none.
  size_t FirstErrorLine() const { return _fFirstErrorLine; }

 private:
  void Flatten(const TSTree* tree);
  void NoteError(uint32_t row);

  TSParser* const _fParser;
  std::vector<Tag> _fTags;  // by the parser's number of a symbol; kDropped for punctuation
  BytesView _fSource;
  std::vector<CNode> _fNodes;
  std::vector<NodeIndex> _fOpen;  // scratch: the nodes from the root to the present one
  size_t _fErrorCount = 0;
  size_t _fFirstErrorLine = 0;
};

class CSyntaxTree::CChildren {
 public:
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = NodeIndex;
    using difference_type = std::ptrdiff_t;
    using pointer = const NodeIndex*;
    using reference = NodeIndex;

    Iterator(const CNode* nodes, NodeIndex at) : _fNodes(nodes), _fAt(at) {}
    NodeIndex operator*() const { return _fAt; }
    Iterator& operator++() {
      _fAt = _fNodes[_fAt].next;
      return *this;
    }
    Iterator operator++(int) {
      const Iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const Iterator& other) const { return _fAt == other._fAt; }

   private:
    const CNode* _fNodes;
    NodeIndex _fAt;
  };

  CChildren(const CNode* nodes, NodeIndex parent) : _fNodes(nodes), _fParent(parent) {}
  Iterator begin() const { return {_fNodes, _fParent + 1}; }
  Iterator end() const { return {_fNodes, _fNodes[_fParent].next}; }

 private:
  const CNode* _fNodes;
  NodeIndex _fParent;
};

inline CSyntaxTree::CChildren CSyntaxTree::Children(NodeIndex parent) const {
  return {_fNodes.data(), parent};
}

}  // namespace pysource::standalone
