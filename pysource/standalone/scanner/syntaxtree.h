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
#include "pysource/standalone/scanner/levels.h"
#include "pysource/standalone/scanner/parsecache.h"
#include "pysource/standalone/scanner/servedtext.h"
#include "pysource/standalone/scanner/statements.h"
#include "pysource/standalone/scanner/syntaxnode.h"
#include "pysource/standalone/scanner/textparser.h"

namespace pysource::standalone {

// The parser and the list, used again for one file after the other.
//
// Source is parsed statement by statement: small statements that follow each other together, a long
// class or function block by block, its header alone. So what damage does to the parser, and the
// memory and the time that it takes, stay within a few kilobytes; the list is the same for all that.
//
// Of a source that makes no sense to the parser for tens of kilobytes, and a sixteenth of all it has,
// statements with brackets or strings that do not match have no nodes from then on, and of others
// that follow one with errors some have none, up to 64 groups. What is understood begins anew. Each
// part that is left out counts as an error.
class CSyntaxTree {
 public:
  // Parses the source, which must stay as long as nodes are looked at, and be fit for the parser
  // (sourceguard.h). Node 0 is the whole file. False when some part of it has no nodes because the
  // parser did not come to an end in good time.
  //
  // With `is_buffer`, parts that were parsed so before are not parsed again: of a text that is edited
  // and parsed after each key, all parts but one.
  bool Parse(BytesView source, bool is_buffer = false);
  // See CTextParser.
  void SetStopFlag(const std::atomic<size_t>* stop) {
    _fStop = stop;
    _fParser.SetStopFlag(stop);
  }

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
  struct CLine {
    uint32_t begin;
    CLogicalLine line;
  };
  // A block that the header in front of it is parsed without.
  struct CBody {
    uint32_t header_end;
    CSourceRange range;
  };

  void ParseBlock(const CSourceRange& range, int depth);
  void ParseSplit(const CSourceRange& statement, int depth);
  void ParseHeaders(const CServedText& text, const std::vector<CBody>& bodies, int depth);
  void AddLine(const CLine& line, uint32_t max_gap, CLevels& levels, CServedText& text);
  void NoteError(uint32_t row);
  bool IsStopped() const { return _fStop != nullptr && *_fStop != 0; }
  void ParseText(const CServedText& text, std::vector<CNode>& nodes);
  void SpendDamage(size_t damage);

  CTextParser _fParser;
  CParseCache _fCache;
  bool _fIsBuffer = false;
  const std::atomic<size_t>* _fStop = nullptr;
  BytesView _fSource;
  std::vector<CNode> _fNodes;
  bool _fIsWhole = true;
  size_t _fDamageLeft = 0;    // what the parser may still fail to understand
  size_t _fLeaveOut = 0;      // so many of the next texts, when nothing is left of that...
  size_t _fLeaveOutNext = 1;  // ...and behind the next one with errors
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
