// The visit of a parsed file: finds its scopes, what they bind, and the attributes that they set.
// What is said of a name, and in which words, stands at the top of scanner.cc.
#pragma once

#include <vector>

#include "pysource/host/text.h"
#include "pysource/standalone/scanner/bindings.h"
#include "pysource/standalone/scanner/syntaxtree.h"
#include "pysource/standalone/scanner/targets.h"
#include "pysource/standalone/scanner/values.h"

namespace pysource::standalone {

class CVisitor {
 public:
  // One pass over the whole tree; fills `bindings`, which are reset first. They point into the
  // tree's source. The tree is marked up and has to be parsed anew for another visit.
  void Visit(CSyntaxTree& tree, CBindings& bindings);

 private:
  // Where a binding stands: in a statement, or within an expression.
  enum class Within : uint8_t { kStatement, kExpression };

  // ---- Scopes (visitor.cc)
  void Open(uint32_t scope, NodeIndex node) { _fOpen.push_back({scope, Tree()[node].next}); }
  // Opens the scope when the visit comes to `node`.
  void OpenAt(NodeIndex node, uint32_t scope) { _fPending.push_back({node, scope}); }
  uint32_t Current() const { return _fOpen.back().scope; }
  // The scope that a walrus binds in.
  uint32_t AroundComprehensions() const;

  void VisitNode(NodeIndex i);
  void VisitFunction(NodeIndex i);
  void VisitClass(NodeIndex i);
  void VisitComprehension(NodeIndex i, Unnamed which);
  uint32_t LambdaScope(NodeIndex i);
  // The decorators of the definition become items of `name`; the result is what they make of a
  // function that is of `kind` without them.
  ScopeKind AddDecorators(uint32_t name, NodeIndex definition, ScopeKind kind);
  void AddBases(NodeIndex arguments, Bytes& item);
  // Makes the arguments names of `scope` and appends them to `signature`.
  void AddArguments(uint32_t scope, NodeIndex parameters, Bytes& signature);
  // The same of one; false when the node is none.
  bool AddArgument(uint32_t scope, NodeIndex node, size_t position, bool is_first,
                   Bytes& signature);
  void AddTypeParameters(uint32_t scope, NodeIndex parameters);

  // ---- What else binds names (visitorbindings.cc)
  void VisitFor(NodeIndex i, Within within);
  void VisitAssignment(NodeIndex i);
  void VisitAugmented(NodeIndex i);
  void VisitExcept(NodeIndex i);
  void VisitAsPattern(NodeIndex i);
  void VisitNamed(NodeIndex i);
  // Marks what is a format to Python and a named expression to the parser:
  // f"{width:=10}".
  void MarkFormatSpecs(NodeIndex interpolation);
  void VisitYield(NodeIndex i);
  // Adds to the name what the function that is open returns or yields.
  void AddOutcome(TextView name, NodeIndex value, TextView path);
  void VisitImport(NodeIndex i);
  void VisitImportFrom(NodeIndex i, bool is_future);
  void VisitTypeAlias(NodeIndex i);
  void VisitDelete(NodeIndex i);
  void VisitDeclaration(NodeIndex i, bool is_global);
  void VisitCase(NodeIndex i);
  void Bind(NodeIndex target, const CValue& value, Within within);
  void BindOne(NodeIndex target, const CValue& value, Within within);
  void AddNamedValue(uint32_t name, NodeIndex value);
  // The name that the target binds or the attribute that it sets; kNoIndex for any other.
  uint32_t TargetName(NodeIndex target);
  uint32_t NameOf(uint32_t scope, NodeIndex identifier);

  const CSyntaxTree& Tree() const { return *_fTree; }
  Tag TagOf(NodeIndex i) const { return (*_fTree)[i].tag; }

  struct COpenScope {
    uint32_t scope;
    NodeIndex end;
  };
  struct CPendingScope {
    NodeIndex node;
    uint32_t scope;
  };

  CSyntaxTree* _fTree = nullptr;
  CBindings* _fBindings = nullptr;
  std::vector<COpenScope> _fOpen;
  std::vector<CPendingScope> _fPending;  // the next one to come last
  NodeIndex _fDecorated = kNoNode;       // the last decorated definition
  NodeIndex _fDone = kNoNode;            // an as-pattern that its clause has taken care of
  std::vector<CPendingScope> _fLambdas;  // the last one whose scope was made
  CValueWriter _fValues;
  CTargets _fTargets;
};

}  // namespace pysource::standalone
