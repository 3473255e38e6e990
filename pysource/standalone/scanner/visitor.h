// The visit of a parsed file: finds its scopes, what they bind, and the attributes that they set.
// What is said of a name, and in which words, stands at the top of scanner.cc.
#pragma once

#include <vector>

#include "pysource/host/symbolinfo.h"
#include "pysource/host/text.h"
#include "pysource/standalone/scanner/bindings.h"
#include "pysource/standalone/scanner/syntaxtree.h"

namespace pysource::standalone {

class CVisitor {
 public:
  // One pass over the whole tree; fills `bindings`, which are reset first. They point into the
  // tree's source. The tree is marked up and has to be parsed anew for another visit.
  void Visit(CSyntaxTree& tree, CBindings& bindings);

 private:
  // The value that a target is bound to: a node or a part of what it holds ("[*]" is any element,
  // "[0]" the first one).
  struct CValue {
    NodeIndex node = kNoNode;
    TextView path;
  };
  // Where a binding stands: in a statement, or within an expression.
  enum class Within : uint8_t { kStatement, kExpression };

  // ---- Scopes
  void Open(uint32_t scope, NodeIndex node) { _fOpen.push_back({scope, Tree()[node].next}); }
  // Opens the scope when the visit comes to `node`.
  void OpenAt(NodeIndex node, uint32_t scope) { _fPending.push_back({node, scope}); }
  uint32_t Current() const { return _fOpen.back().scope; }
  // The scope that a walrus binds in.
  uint32_t AroundComprehensions() const;

  // ---- What binds
  void VisitNode(NodeIndex i);
  void VisitFunction(NodeIndex i);
  void VisitClass(NodeIndex i);
  void VisitComprehension(NodeIndex i, Unnamed which);
  void VisitFor(NodeIndex i, Within within);
  void VisitAssignment(NodeIndex i);
  void VisitAugmented(NodeIndex i);
  void VisitExcept(NodeIndex i);
  void VisitAsPattern(NodeIndex i);
  void VisitNamed(NodeIndex i);
  void VisitImport(NodeIndex i);
  void VisitImportFrom(NodeIndex i, bool is_future);
  void VisitTypeAlias(NodeIndex i);
  void VisitDelete(NodeIndex i);
  void VisitDeclaration(NodeIndex i, bool is_global);
  void VisitCase(NodeIndex i);
  uint32_t LambdaScope(NodeIndex i);
  // The decorators of the definition become items of `name`; the result is what they make of a
  // function that is of `kind` without them.
  ScopeKind AddDecorators(uint32_t name, NodeIndex definition, ScopeKind kind);
  // Makes the arguments names of `scope` and appends their names to `signature`.
  void AddArguments(uint32_t scope, NodeIndex parameters, Bytes& signature);
  void AddTypeParameters(uint32_t scope, NodeIndex parameters);

  // ---- Targets and values
  void Bind(NodeIndex target, CValue value, Within within);
  void BindOne(NodeIndex target, CValue value, Within within);
  void PushTargets(NodeIndex sequence, CValue value);
  NodeIndex UnwrappedTarget(NodeIndex target) const;
  // The name that the target binds or the attribute that it sets; kNoIndex for any other.
  uint32_t TargetName(NodeIndex target);
  uint32_t NameOf(uint32_t scope, NodeIndex identifier);
  void AddSet(uint32_t name, NodeIndex at) {
    _fBindings->AddNumber(name, kSetPrefix, size_t{Tree()[at].row} + 1);
  }
  void AddHint(uint32_t name, NodeIndex hint);
  void AddHintText(uint32_t name, NodeIndex hint);
  void AddValue(uint32_t name, CValue value);
  void AddWholeValue(uint32_t name, NodeIndex node);
  void AddPart(uint32_t name, NodeIndex node, TextView path);
  void AddCalled(uint32_t name, NodeIndex node);
  void AddText(uint32_t name, BytesView prefix, NodeIndex node, TextView path);
  uint32_t BeginText(BytesView prefix);
  void EndText(uint32_t name, uint32_t begin, size_t size);
  void AddDomain(uint32_t name, NodeIndex node);

  // ---- Looking at nodes
  const CSyntaxTree& Tree() const { return *_fTree; }
  Tag TagOf(NodeIndex i) const { return (*_fTree)[i].tag; }
  NodeIndex Child(NodeIndex parent, Tag tag) const;
  NodeIndex LastChild(NodeIndex parent) const;
  size_t ChildCount(NodeIndex parent) const;
  NodeIndex Unwrapped(NodeIndex node) const;
  bool IsDotted(NodeIndex node) const;
  bool HasSplat(NodeIndex sequence) const;
  bool HasInterpolation(NodeIndex string) const;
  // The builtin class of a literal; empty for anything else.
  TextView LiteralClass(NodeIndex node) const;
  // The identifier as Python compares it. Empty where the parser has put one in.
  TextView Identifier(NodeIndex node);
  // The text of a dotted name or module.
  TextView Dotted(NodeIndex node);
  void AppendText(NodeIndex node);

  struct COpenScope {
    uint32_t scope;
    NodeIndex end;
  };
  struct CPendingScope {
    NodeIndex node;
    uint32_t scope;
  };
  // A sequence of targets, and what of the value it takes apart.
  struct CTargetFrame {
    NodeIndex sequence;
    NodeIndex end;
    NodeIndex node;     // of the value; kNoNode when nothing is known
    NodeIndex element;  // the next one of the value, when both sides match one by one
    size_t path_begin;  // the part of `node`, in _fPath
    size_t path_end;
    uint32_t position;  // of the next target
    uint32_t count;
    bool after_rest;  // positions behind a starred target count from the end
  };

  CSyntaxTree* _fTree = nullptr;
  CBindings* _fBindings = nullptr;
  std::vector<COpenScope> _fOpen;
  std::vector<CPendingScope> _fPending;   // the next one to come last
  NodeIndex _fDecorated = kNoNode;        // the last decorated definition
  NodeIndex _fDone = kNoNode;             // an as-pattern that its clause has taken care of
  std::vector<CTargetFrame> _fFrames;     // scratch of Bind
  Text _fPath;                            // scratch of Bind
  std::vector<NodeIndex> _fAlternatives;  // scratch of AddValue
  NodeIndex _fNamedLambda = kNoNode;      // a lambda that is all of the value at hand
  std::vector<CPendingScope> _fLambdas;   // the last one whose scope was made
  uint32_t _fMeantIn = kNoIndex;  // the scope that the value at hand is meant in, if another one
};

}  // namespace pysource::standalone
