// What a name is bound to, put into items of it: hints, values, domains. In which words stands at
// the top of scanner.cc.
#pragma once

#include <vector>

#include "pysource/host/symbolinfo/kinds.h"
#include "pysource/host/text.h"
#include "pysource/standalone/scanner/bindings.h"
#include "pysource/standalone/scanner/syntaxtree.h"

namespace pysource::standalone {

// The value that a target is bound to.
struct CValue {
  NodeIndex node = kNoNode;      // kNoNode: nothing is known
  TextView path;                 // of what it holds: "[*]" is any element, "[0]" the first one
  uint32_t meant_in = kNoIndex;  // the scope that its names are meant in, if not the name's own
};

class CValueWriter {
 public:
  // From now on it is about this tree, and adds to these bindings.
  void Begin(const CSyntaxTree& tree, CBindings& bindings) {
    _fTree = &tree;
    _fBindings = &bindings;
  }

  // The line where the name is set.
  void AddSet(uint32_t name, NodeIndex at) { _fBindings->AddNumber(name, kSetPrefix, LineOf(at)); }
  // The line of an expression that binds the name.
  void AddWithinExpression(uint32_t name, NodeIndex at) {
    _fBindings->AddNumber(name, kWithinExprPrefix, LineOf(at));
  }
  // The hint and its line; the hint alone.
  void AddHint(uint32_t name, NodeIndex hint);
  void AddHintText(uint32_t name, NodeIndex hint);
  // An item for each of the alternatives that the value has.
  void AddValue(uint32_t name, const CValue& value);
  // What calling the expression gives.
  void AddCalled(uint32_t name, NodeIndex node, uint32_t meant_in = kNoIndex) {
    AddText(name, kCalledPrefix, {node, {}, meant_in});
  }
  // The elements of a display of literals, for who asks which values a name can have.
  void AddDomain(uint32_t name, NodeIndex node);

  // ---- Text of the source

  // The identifier as Python compares it. Empty where the parser has put one in.
  TextView Identifier(NodeIndex node);
  // The text of a dotted name or module.
  TextView Dotted(NodeIndex node);
  // Appends the text of the expression to the item at hand.
  void AppendText(NodeIndex node);
  // Counted from 1.
  size_t LineOf(NodeIndex node) const { return size_t{(*_fTree)[node].row} + 1; }

 private:
  void AddWholeValue(uint32_t name, const CValue& value);
  void AddPart(uint32_t name, const CValue& value);
  void AddExpression(uint32_t name, const CValue& value);
  void AddText(uint32_t name, BytesView prefix, const CValue& value);
  uint32_t BeginText(BytesView prefix, uint32_t meant_in);
  void EndText(uint32_t name, uint32_t begin, size_t size);

  const CSyntaxTree& Tree() const { return *_fTree; }
  Tag TagOf(NodeIndex i) const { return (*_fTree)[i].tag; }

  const CSyntaxTree* _fTree = nullptr;
  CBindings* _fBindings = nullptr;
  std::vector<NodeIndex> _fAlternatives;  // scratch of AddValue
};

}  // namespace pysource::standalone
