#include "pysource/standalone/scanner/visitor.h"

#include <string>
#include <utility>

#include "pysource/host/symbolinfo/kinds.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/standalone/scanner/itemtext.h"
#include "pysource/standalone/scanner/nodes.h"

namespace pysource::standalone {
void CVisitor::Visit(CSyntaxTree& tree, CBindings& bindings) {
  _fTree = &tree;
  _fBindings = &bindings;
  bindings.Reset();
  _fValues.Begin(tree, bindings);
  _fOpen.clear();
  _fPending.clear();
  _fLambdas.clear();
  _fDecorated = kNoNode;
  _fDone = kNoNode;
  Open(0, 0);
  const NodeIndex end = tree.Size();
  for (NodeIndex i = 0; i < end && !bindings.IsFull(); ++i) {
    while (i >= _fOpen.back().end) {
      _fOpen.pop_back();
    }
    while (!_fPending.empty() && _fPending.back().node <= i) {
      if (_fPending.back().node == i) {
        Open(_fPending.back().scope, i);
        if (_fBindings->Scope(Current()).kind == ScopeKind::kLambda) {
          AddOutcome(kReturnName, i, {});
        }
      }
      _fPending.pop_back();
    }
    VisitNode(i);
  }
  bindings.TellMissedImports();
}

void CVisitor::VisitNode(NodeIndex i) {
  switch (TagOf(i)) {
    case Tag::kFunction:
      VisitFunction(i);
      break;
    case Tag::kClass:
      VisitClass(i);
      break;
    case Tag::kDecorated:
      _fDecorated = i;
      break;
    case Tag::kLambda: {
      const NodeIndex body = Tree().LastChild(i);
      const uint32_t scope = LambdaScope(i);
      if (body != kNoNode && TagOf(body) != Tag::kLambdaParameters) {
        OpenAt(body, scope);
      }
      break;
    }
    case Tag::kListComprehension:
      VisitComprehension(i, Unnamed::kListComp);
      break;
    case Tag::kSetComprehension:
      VisitComprehension(i, Unnamed::kSetComp);
      break;
    case Tag::kDictionaryComprehension:
      VisitComprehension(i, Unnamed::kDictComp);
      break;
    case Tag::kGenerator:
      VisitComprehension(i, Unnamed::kGenExpr);
      break;
    case Tag::kFor:
      VisitFor(i, Within::kStatement);
      break;
    case Tag::kForIn:
      VisitFor(i, Within::kExpression);
      break;
    case Tag::kAssignment:
      VisitAssignment(i);
      break;
    case Tag::kAugmented:
      VisitAugmented(i);
      break;
    case Tag::kExcept:
    case Tag::kExceptGroup:
      VisitExcept(i);
      break;
    case Tag::kAsPattern:
      VisitAsPattern(i);
      break;
    case Tag::kNamed:
      VisitNamed(i);
      break;
    case Tag::kInterpolation:
      MarkFormatSpecs(i);
      break;
    case Tag::kReturn:
      AddOutcome(kReturnName, Tree().FirstChild(i), {});
      break;
    case Tag::kYield:
      VisitYield(i);
      break;
    case Tag::kImport:
      VisitImport(i);
      break;
    case Tag::kImportFrom:
      VisitImportFrom(i, false);
      break;
    case Tag::kFutureImport:
      VisitImportFrom(i, true);
      break;
    case Tag::kTypeAlias:
      VisitTypeAlias(i);
      break;
    case Tag::kDelete:
      VisitDelete(i);
      break;
    case Tag::kGlobal:
      VisitDeclaration(i, true);
      break;
    case Tag::kNonlocal:
      VisitDeclaration(i, false);
      break;
    case Tag::kCase:
      VisitCase(i);
      break;
    default:
      break;
  }
}

// ---- Scopes

uint32_t CVisitor::AroundComprehensions() const {
  uint32_t scope = Current();
  while (_fBindings->Scope(scope).kind == ScopeKind::kComprehension) {
    scope = _fBindings->Scope(scope).parent;
  }
  return scope;
}

ScopeKind CVisitor::AddDecorators(uint32_t name, NodeIndex definition, ScopeKind kind) {
  if (_fDecorated == kNoNode || Tree().LastChild(_fDecorated) != definition) {
    return kind;
  }
  for (NodeIndex child = Tree().FirstChild(_fDecorated); child != definition;
       child = Tree().NextChild(_fDecorated, child)) {
    NodeIndex expression = Tree().FirstChild(child);
    if (TagOf(child) != Tag::kDecorator || expression == kNoNode) {
      continue;
    }
    if (TagOf(expression) == Tag::kCall) {
      expression = expression + 1;
    }
    BytesView text = Tree().Text(expression);
    const uint32_t begin = _fBindings->BeginItem(kDecoratorPrefix);
    _fValues.AppendText(expression);
    _fBindings->EndItem(name, begin);
    if (kind == ScopeKind::kMethod) {
      if (text.starts_with("abc.")) {
        text.remove_prefix(4);
      }
      if (text == "staticmethod" || text == "abstractstaticmethod") {
        kind = ScopeKind::kStaticMethod;
      } else if (text == "classmethod" || text == "abstractclassmethod") {
        kind = ScopeKind::kClassMethod;
      }
    }
  }
  return kind;
}

void CVisitor::VisitFunction(NodeIndex i) {
  const NodeIndex identifier = Tree().Child(i, Tag::kIdentifier);
  const TextView leaf = identifier == kNoNode ? TextView() : _fValues.Identifier(identifier);
  if (leaf.empty()) {
    return;
  }
  const uint32_t parent = Current();
  const uint32_t name = _fBindings->GetName(parent, leaf);
  _fValues.AddSet(name, identifier);
  ScopeKind kind = ScopeKind::kFunction;
  if (_fBindings->Scope(parent).kind == ScopeKind::kClass) {
    // Python makes these three what they are without a decorator.
    kind = leaf == "__new__"                                            ? ScopeKind::kStaticMethod
           : leaf == "__init_subclass__" || leaf == "__class_getitem__" ? ScopeKind::kClassMethod
                                                                        : ScopeKind::kMethod;
  }
  kind = AddDecorators(name, i, kind);

  const uint32_t scope =
      _fBindings->MakeScope(kind, parent, leaf, ++_fBindings->Name(name).definitions);
  Bytes item(kind == ScopeKind::kFunction ? kFunctionPrefix
             : kind == ScopeKind::kMethod ? kMethodPrefix
                                          : kUnboundMethodPrefix);
  item += _fBindings->Scope(scope).name;
  item += '(';
  for (const NodeIndex child : Tree().Children(i)) {
    switch (TagOf(child)) {
      case Tag::kTypeParameters:
        AddTypeParameters(scope, child);
        break;
      case Tag::kParameters:
        AddArguments(scope, child, item);
        break;
      case Tag::kType:
        _fValues.AddHint(_fBindings->GetName(scope, kReturnName), child);
        break;
      case Tag::kBlock:
        OpenAt(child, scope);
        break;
      default:
        break;
    }
  }
  item += ')';
  _fBindings->AddItem(name, item);
  _fBindings->Scope(scope).ibytes = std::move(item);
}

void CVisitor::VisitClass(NodeIndex i) {
  const NodeIndex identifier = Tree().Child(i, Tag::kIdentifier);
  const TextView leaf = identifier == kNoNode ? TextView() : _fValues.Identifier(identifier);
  if (leaf.empty()) {
    return;
  }
  const uint32_t parent = Current();
  const uint32_t name = _fBindings->GetName(parent, leaf);
  _fValues.AddSet(name, identifier);
  AddDecorators(name, i, ScopeKind::kClass);

  const uint32_t scope =
      _fBindings->MakeScope(ScopeKind::kClass, parent, leaf, ++_fBindings->Name(name).definitions);
  Bytes item(kClassPrefix);
  item += _fBindings->Scope(scope).name;
  item += '(';
  for (const NodeIndex child : Tree().Children(i)) {
    if (TagOf(child) == Tag::kTypeParameters) {
      AddTypeParameters(scope, child);
    } else if (TagOf(child) == Tag::kBlock) {
      OpenAt(child, scope);
    } else if (TagOf(child) == Tag::kArguments) {
      AddBases(child, item);
    }
  }
  item += ')';
  _fBindings->AddItem(name, item);
  _fBindings->Scope(scope).ibytes = std::move(item);
}

// The bases, and then the keywords.
void CVisitor::AddBases(NodeIndex arguments, Bytes& item) {
  const size_t begin = item.size();
  const auto append = [&](BytesView name, NodeIndex value) {
    Bytes text;
    AppendExpressionText(Tree().Text(value), text);
    item += item.size() == begin ? "" : ",";
    item += name;
    // A bare "=" is the mark of a keyword.
    const bool is_wrapped = name.empty() && HasBareEquals(text);
    item += is_wrapped ? "(" + text + ")" : text;
  };
  for (const NodeIndex base : Tree().Children(arguments)) {
    const Tag tag = TagOf(base);
    if (tag != Tag::kKeywordArgument && tag != Tag::kDictionarySplat && tag != Tag::kError) {
      append({}, base);
    }
  }
  for (const NodeIndex keyword : Tree().Children(arguments)) {
    const NodeIndex name = Tree().FirstChild(keyword);
    const NodeIndex value = Tree().LastChild(keyword);
    if (TagOf(keyword) == Tag::kKeywordArgument && name != kNoNode && value != name) {
      append(Bytes(_fValues.Identifier(name)) + '=', value);
    }
  }
}

uint32_t CVisitor::LambdaScope(NodeIndex i) {
  for (const CPendingScope& made : _fLambdas) {
    if (made.node == i) {
      return made.scope;
    }
  }
  const uint32_t scope =
      _fBindings->MakeUnnamedScope(Unnamed::kLambda, ScopeKind::kLambda, Current());
  // A lambda that a name is bound to is made when its name is; its node is still to come. One is
  // remembered at a time, as there is none between the two.
  _fLambdas.clear();
  _fLambdas.push_back({i, scope});
  Bytes item(kFunctionPrefix);
  item += _fBindings->Scope(scope).name;
  item += '(';
  const NodeIndex parameters = Tree().Child(i, Tag::kLambdaParameters);
  if (parameters != kNoNode) {
    AddArguments(scope, parameters, item);
  }
  item += ')';
  _fBindings->Scope(scope).ibytes = std::move(item);
  return scope;
}

void CVisitor::VisitComprehension(NodeIndex i, Unnamed which) {
  const uint32_t parent = Current();
  const uint32_t scope = _fBindings->MakeUnnamedScope(which, ScopeKind::kComprehension, parent);
  _fBindings->Scope(scope).ibytes = Bytes(kWithinExprPrefix) + std::to_string(_fValues.LineOf(i));
  Open(scope, i);
  const NodeIndex clause = Tree().Child(i, Tag::kForIn);
  if (clause == kNoNode) {
    return;
  }
  // The first iterable is evaluated before the comprehension is entered.
  const NodeIndex target = Tree().FirstChild(clause);
  const NodeIndex iterable = target == kNoNode ? kNoNode : Tree().NextChild(clause, target);
  if (iterable != kNoNode) {
    (*_fTree)[clause].mark = 1;
    OpenAt(iterable, parent);
  }
}

void CVisitor::AddArguments(uint32_t scope, NodeIndex parameters, Bytes& signature) {
  const size_t begin = signature.size();
  size_t position = 0;
  for (const NodeIndex child : Tree().Children(parameters)) {
    const Tag tag = TagOf(child);
    const size_t end = signature.size();
    signature += end == begin ? "" : ",";
    if (tag == Tag::kStarSeparator || tag == Tag::kSlashSeparator) {
      signature += tag == Tag::kStarSeparator ? '*' : '/';
    } else if (AddArgument(scope, child, position, signature.size() == begin, signature)) {
      ++position;
    } else {
      signature.resize(end);
    }
  }
}

bool CVisitor::AddArgument(uint32_t scope, NodeIndex node, size_t position, bool is_first,
                           Bytes& signature) {
  NodeIndex target = node;
  NodeIndex hint = kNoNode;
  NodeIndex value = kNoNode;
  if (TagOf(node) == Tag::kTypedParameter || TagOf(node) == Tag::kDefaultParameter ||
      TagOf(node) == Tag::kTypedDefaultParameter) {
    target = Tree().FirstChild(node);
    hint = Tree().Child(node, Tag::kType);
    if (TagOf(node) != Tag::kTypedParameter) {
      value = Tree().LastChild(node);
    }
  }
  const Tag star = target == kNoNode ? Tag::kOther : TagOf(target);
  const bool takes_rest = star == Tag::kListSplatPattern || star == Tag::kDictionarySplatPattern;
  if (takes_rest) {
    target = Tree().FirstChild(target);
  }
  if (target == kNoNode || TagOf(target) != Tag::kIdentifier) {
    return false;
  }
  const TextView leaf = _fValues.Identifier(target);
  if (leaf.empty()) {
    return false;
  }
  const uint32_t name = _fBindings->GetName(scope, leaf);
  _fValues.AddSet(name, target);
  _fBindings->AddNumber(name, kArgPrefix, position);
  const ScopeKind kind = _fBindings->Scope(scope).kind;
  if (is_first && !takes_rest && (kind == ScopeKind::kMethod || kind == ScopeKind::kClassMethod)) {
    _fBindings->Scope(scope).first_argument = name;
    if (kind == ScopeKind::kMethod) {
      _fBindings->AddItem(name, kSelfPrefix);
    }
  }
  signature += star == Tag::kListSplatPattern ? "*" : takes_rest ? "**" : "";
  signature += leaf;
  if (hint != kNoNode) {
    _fValues.AddHint(name, hint);
  }
  if (takes_rest) {
    _fBindings->AddItem(name, kTypedLiteralPrefix,
                        star == Tag::kListSplatPattern ? "tuple" : "dict");
  }
  if (value != kNoNode && value != target) {
    signature += '=';
    _fValues.AddValue(name, {value, {}, _fBindings->Scope(scope).parent});
  }
  return true;
}

void CVisitor::AddTypeParameters(uint32_t scope, NodeIndex parameters) {
  for (const NodeIndex child : Tree().Children(parameters)) {
    NodeIndex identifier = child;
    while (identifier < Tree()[child].next && TagOf(identifier) != Tag::kIdentifier) {
      ++identifier;
    }
    if (identifier == Tree()[child].next || _fValues.Identifier(identifier).empty()) {
      continue;
    }
    const BytesView text = Tree().Text(child);
    const uint32_t name = NameOf(scope, identifier);
    _fValues.AddSet(name, identifier);
    _fBindings->AddItem(name, kTypingModulePrefix,
                        text.starts_with("**")  ? "ParamSpec"
                        : text.starts_with("*") ? "TypeVarTuple"
                                                : "TypeVar");
    const NodeIndex bounded = Tree().FirstChild(child);
    if (bounded != kNoNode && TagOf(bounded) == Tag::kConstrainedType) {
      const NodeIndex bound = Tree().LastChild(bounded);
      if (bound != kNoNode && bound != Tree().FirstChild(bounded)) {
        _fValues.AddHintText(name, bound);
      }
    }
  }
}

}  // namespace pysource::standalone
