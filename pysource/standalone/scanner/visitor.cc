#include "pysource/standalone/scanner/visitor.h"

#include <glib.h>

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>

#include "pysource/host/symbolinfo.h"
#include "pysource/standalone/scanner/itemtext.h"

namespace pysource::standalone {
namespace {

constexpr TextView kReturnName = "return";
constexpr TextView kStarName = "*";

// Alternatives of one value (a if b else c or d ...) that are followed.
constexpr size_t kMostAlternatives = 16;
// Elements of a literal that are looked at to tell what iterating over it gives.
constexpr size_t kMostIterated = 64;
// The longest __all__ of the standard library takes some 6000 bytes; what is longer is data that
// nobody asks the domain of.
constexpr size_t kMostDomainText = 16384;
// Deeper parts of a value than these are not told.
constexpr size_t kMostPathText = 64;

bool IsTargetSequence(Tag tag) {
  return tag == Tag::kTuplePattern || tag == Tag::kListPattern || tag == Tag::kPatternList ||
         tag == Tag::kTuple || tag == Tag::kList || tag == Tag::kExpressionList;
}

bool IsSequence(Tag tag) {
  return tag == Tag::kTuple || tag == Tag::kList || tag == Tag::kExpressionList;
}

bool IsSplat(Tag tag) { return tag == Tag::kListSplatPattern || tag == Tag::kListSplat; }

bool IsLiteral(Tag tag) {
  return tag == Tag::kString || tag == Tag::kConcatenatedString || tag == Tag::kInteger ||
         tag == Tag::kFloat || tag == Tag::kTrue || tag == Tag::kFalse || tag == Tag::kNone ||
         tag == Tag::kUnary;
}

bool IsAscii(TextView text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// Python compares identifiers in this form: a ligature "fi" is the letters f and i.
Text NormalForm(TextView identifier) {
  const std::unique_ptr<gchar, void (*)(gpointer)> normal(
      g_utf8_normalize(identifier.data(), static_cast<gssize>(identifier.size()),
                       G_NORMALIZE_ALL_COMPOSE),
      g_free);
  return normal == nullptr ? Text(identifier) : Text(normal.get());
}

bool ContainsComma(BytesView text) { return text.find(',') != BytesView::npos; }

}  // namespace

void CVisitor::Visit(CSyntaxTree& tree, CBindings& bindings) {
  _fTree = &tree;
  _fBindings = &bindings;
  bindings.Reset();
  _fOpen.clear();
  _fPending.clear();
  _fLambdas.clear();
  _fDecorated = kNoNode;
  _fDone = kNoNode;
  _fNamedLambda = kNoNode;
  Open(0, 0);
  const NodeIndex end = tree.Size();
  for (NodeIndex i = 0; i < end; ++i) {
    while (i >= _fOpen.back().end) {
      _fOpen.pop_back();
    }
    while (!_fPending.empty() && _fPending.back().node <= i) {
      if (_fPending.back().node == i) {
        Open(_fPending.back().scope, i);
      }
      _fPending.pop_back();
    }
    VisitNode(i);
  }
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
      const NodeIndex body = LastChild(i);
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
  if (_fDecorated == kNoNode || LastChild(_fDecorated) != definition) {
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
    AppendText(expression);
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
  const NodeIndex identifier = Child(i, Tag::kIdentifier);
  const TextView leaf = identifier == kNoNode ? TextView() : Identifier(identifier);
  if (leaf.empty()) {
    return;
  }
  const uint32_t parent = Current();
  const uint32_t name = _fBindings->GetName(parent, leaf);
  AddSet(name, identifier);
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
  for (NodeIndex child = Tree().FirstChild(i); child != kNoNode;
       child = Tree().NextChild(i, child)) {
    switch (TagOf(child)) {
      case Tag::kTypeParameters:
        AddTypeParameters(scope, child);
        break;
      case Tag::kParameters:
        AddArguments(scope, child, item);
        break;
      case Tag::kType:
        AddHint(_fBindings->GetName(scope, kReturnName), child);
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
  const NodeIndex identifier = Child(i, Tag::kIdentifier);
  const TextView leaf = identifier == kNoNode ? TextView() : Identifier(identifier);
  if (leaf.empty()) {
    return;
  }
  const uint32_t parent = Current();
  const uint32_t name = _fBindings->GetName(parent, leaf);
  AddSet(name, identifier);
  AddDecorators(name, i, ScopeKind::kClass);

  const uint32_t scope =
      _fBindings->MakeScope(ScopeKind::kClass, parent, leaf, ++_fBindings->Name(name).definitions);
  Bytes item(kClassPrefix);
  item += _fBindings->Scope(scope).name;
  item += '(';
  const size_t bases_begin = item.size();
  for (NodeIndex child = Tree().FirstChild(i); child != kNoNode;
       child = Tree().NextChild(i, child)) {
    if (TagOf(child) == Tag::kTypeParameters) {
      AddTypeParameters(scope, child);
    } else if (TagOf(child) == Tag::kBlock) {
      OpenAt(child, scope);
    } else if (TagOf(child) == Tag::kArguments) {
      for (NodeIndex base = Tree().FirstChild(child); base != kNoNode;
           base = Tree().NextChild(child, base)) {
        if (TagOf(base) == Tag::kKeywordArgument || TagOf(base) == Tag::kError ||
            TagOf(base) == Tag::kOther) {
          continue;
        }
        if (item.size() != bases_begin) {
          item += ',';
        }
        AppendExpressionText(Tree().Text(base), item);
      }
    }
  }
  item += ')';
  _fBindings->AddItem(name, item);
  _fBindings->Scope(scope).ibytes = std::move(item);
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
  const NodeIndex parameters = Child(i, Tag::kLambdaParameters);
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
  _fBindings->Scope(scope).ibytes =
      Bytes(kWithinExprPrefix) + std::to_string(size_t{Tree()[i].row} + 1);
  Open(scope, i);
  const NodeIndex clause = Child(i, Tag::kForIn);
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
  const uint32_t parent = _fBindings->Scope(scope).parent;
  const ScopeKind kind = _fBindings->Scope(scope).kind;
  size_t position = 0;
  for (NodeIndex child = Tree().FirstChild(parameters); child != kNoNode;
       child = Tree().NextChild(parameters, child)) {
    NodeIndex target = child;
    NodeIndex hint = kNoNode;
    NodeIndex value = kNoNode;
    if (TagOf(child) == Tag::kTypedParameter || TagOf(child) == Tag::kDefaultParameter ||
        TagOf(child) == Tag::kTypedDefaultParameter) {
      target = Tree().FirstChild(child);
      hint = Child(child, Tag::kType);
      if (TagOf(child) != Tag::kTypedParameter) {
        value = LastChild(child);
      }
    }
    if (target == kNoNode) {
      continue;
    }
    const Tag star = TagOf(target);
    if (star == Tag::kListSplatPattern || star == Tag::kDictionarySplatPattern) {
      target = Tree().FirstChild(target);
    }
    const TextView leaf =
        target == kNoNode || TagOf(target) != Tag::kIdentifier ? TextView() : Identifier(target);
    if (leaf.empty()) {
      continue;
    }
    const uint32_t name = _fBindings->GetName(scope, leaf);
    AddSet(name, target);
    _fBindings->AddNumber(name, kArgPrefix, position);
    if (position == 0 && star == Tag::kIdentifier &&
        (kind == ScopeKind::kMethod || kind == ScopeKind::kClassMethod)) {
      _fBindings->Scope(scope).first_argument = name;
      if (kind == ScopeKind::kMethod) {
        _fBindings->AddItem(name, kSelfPrefix);
      }
    }
    if (position++ != 0) {
      signature += ',';
    }
    signature += leaf;
    if (hint != kNoNode) {
      AddHint(name, hint);
    }
    if (star == Tag::kListSplatPattern || star == Tag::kDictionarySplatPattern) {
      _fBindings->AddItem(name, kTypedLiteralPrefix,
                          star == Tag::kListSplatPattern ? "tuple" : "dict");
    }
    if (value != kNoNode && value != target) {
      _fMeantIn = parent;
      AddValue(name, {value, {}});
      _fMeantIn = kNoIndex;
    }
  }
}

void CVisitor::AddTypeParameters(uint32_t scope, NodeIndex parameters) {
  for (NodeIndex child = Tree().FirstChild(parameters); child != kNoNode;
       child = Tree().NextChild(parameters, child)) {
    NodeIndex identifier = child;
    while (identifier < Tree()[child].next && TagOf(identifier) != Tag::kIdentifier) {
      ++identifier;
    }
    if (identifier == Tree()[child].next || Identifier(identifier).empty()) {
      continue;
    }
    const BytesView text = Tree().Text(child);
    const uint32_t name = NameOf(scope, identifier);
    AddSet(name, identifier);
    _fBindings->AddItem(name, kTypingModulePrefix,
                        text.starts_with("**")  ? "ParamSpec"
                        : text.starts_with("*") ? "TypeVarTuple"
                                                : "TypeVar");
    const NodeIndex bounded = Tree().FirstChild(child);
    if (bounded != kNoNode && TagOf(bounded) == Tag::kConstrainedType) {
      const NodeIndex bound = LastChild(bounded);
      if (bound != kNoNode && bound != Tree().FirstChild(bounded)) {
        AddHintText(name, bound);
      }
    }
  }
}

// ---- Statements and expressions that bind

void CVisitor::VisitFor(NodeIndex i, Within within) {
  const NodeIndex target = Tree().FirstChild(i);
  const NodeIndex iterable = target == kNoNode ? kNoNode : Tree().NextChild(i, target);
  if (iterable == kNoNode) {
    return;
  }
  if (Tree()[i].mark != 0) {
    _fMeantIn = _fBindings->Scope(Current()).parent;
  }
  Bind(target, {iterable, kIterationSubscript}, within);
  _fMeantIn = kNoIndex;
}

void CVisitor::VisitAssignment(NodeIndex i) {
  NodeIndex target = Tree().FirstChild(i);
  if (target == kNoNode) {
    return;
  }
  NodeIndex hint = kNoNode;
  NodeIndex value = Tree().NextChild(i, target);
  if (value != kNoNode && TagOf(value) == Tag::kType) {
    hint = value;
    value = Tree().NextChild(i, value);
  }
  while (value != kNoNode && TagOf(value) == Tag::kAssignment) {
    value = LastChild(value);  // a = b = value
  }
  const bool is_wrapped = UnwrappedTarget(target) != target;
  if (is_wrapped && value == kNoNode) {
    return;  // "(x): int" declares nothing
  }
  target = UnwrappedTarget(target);
  if (IsTargetSequence(TagOf(target))) {
    Bind(target, {value, {}}, Within::kStatement);
    return;
  }
  const uint32_t name = TargetName(target);
  if (name == kNoIndex) {
    return;
  }
  if (value != kNoNode) {
    AddSet(name, target);
  }
  if (hint != kNoNode) {
    AddHint(name, hint);
  }
  if (value != kNoNode) {
    _fNamedLambda = Unwrapped(value);
    AddValue(name, {value, {}});
    _fNamedLambda = kNoNode;
    AddDomain(name, value);
  }
}

void CVisitor::VisitAugmented(NodeIndex i) {
  const NodeIndex target = Tree().FirstChild(i);
  const NodeIndex value = target == kNoNode ? kNoNode : Tree().NextChild(i, target);
  if (value == kNoNode) {
    return;
  }
  const uint32_t name = TargetName(UnwrappedTarget(target));
  if (name == kNoIndex) {
    return;
  }
  AddSet(name, target);
  const uint32_t begin = _fBindings->BeginItem(kExpressionEquivPrefix);
  AppendText(target);
  BytesView op =
      Tree().Source().substr(Tree()[target].end, Tree()[value].begin - Tree()[target].end);
  op = op.substr(0, op.find('='));
  AppendExpressionText(op, _fBindings->ItemText());
  AppendText(value);
  _fBindings->EndItem(name, begin);
  AddDomain(name, value);
}

void CVisitor::VisitExcept(NodeIndex i) {
  NodeIndex caught = Tree().FirstChild(i);
  if (caught == kNoNode) {
    return;
  }
  NodeIndex target = kNoNode;
  if (TagOf(caught) == Tag::kAsPattern) {
    _fDone = caught;
    const NodeIndex wrapped = Child(caught, Tag::kAsPatternTarget);
    target = wrapped == kNoNode ? kNoNode : Tree().FirstChild(wrapped);
    caught = Tree().FirstChild(caught);
  } else {
    target = Tree().NextChild(i, caught);
  }
  if (target == kNoNode || TagOf(target) != Tag::kIdentifier || Identifier(target).empty()) {
    return;
  }
  const uint32_t name = NameOf(Current(), target);
  AddSet(name, target);
  // "except* C" after an "except" clause is taken for "except" and a starred expression.
  if (TagOf(i) == Tag::kExceptGroup || IsSplat(TagOf(caught))) {
    _fBindings->AddItem(name, kCalledPrefix, "ExceptionGroup");
    return;
  }
  caught = Unwrapped(caught);
  if (TagOf(caught) != Tag::kTuple) {
    AddCalled(name, caught);
    return;
  }
  for (NodeIndex child = Tree().FirstChild(caught); child != kNoNode;
       child = Tree().NextChild(caught, child)) {
    if (!IsSplat(TagOf(child))) {
      AddCalled(name, child);
    }
  }
}

void CVisitor::VisitAsPattern(NodeIndex i) {
  const NodeIndex value = Tree().FirstChild(i);
  const NodeIndex target = Child(i, Tag::kAsPatternTarget);
  // One of a match statement has no target, and its clause takes care of it.
  if (i == _fDone || target == kNoNode || Tree().FirstChild(target) == kNoNode) {
    return;
  }
  Bind(Tree().FirstChild(target), {value, {}}, Within::kStatement);
}

void CVisitor::VisitNamed(NodeIndex i) {
  const NodeIndex target = Tree().FirstChild(i);
  const NodeIndex value = LastChild(i);
  if (target == kNoNode || value == target || TagOf(target) != Tag::kIdentifier ||
      Identifier(target).empty()) {
    return;
  }
  const uint32_t scope = AroundComprehensions();
  const uint32_t name = NameOf(scope, target);
  AddSet(name, target);
  _fBindings->AddNumber(name, kWithinExprPrefix, size_t{Tree()[target].row} + 1);
  if (scope != Current()) {
    _fMeantIn = Current();
  } else {
    _fNamedLambda = Unwrapped(value);
  }
  AddValue(name, {value, {}});
  _fMeantIn = kNoIndex;
  _fNamedLambda = kNoNode;
}

void CVisitor::VisitImport(NodeIndex i) {
  for (NodeIndex child = Tree().FirstChild(i); child != kNoNode;
       child = Tree().NextChild(i, child)) {
    const bool is_aliased = TagOf(child) == Tag::kAliasedImport;
    const NodeIndex module = is_aliased ? Tree().FirstChild(child) : child;
    if (module == kNoNode || TagOf(module) != Tag::kDottedName) {
      continue;
    }
    const NodeIndex bound = is_aliased ? LastChild(child) : Tree().FirstChild(module);
    if (bound == kNoNode || TagOf(bound) != Tag::kIdentifier || Identifier(bound).empty()) {
      continue;
    }
    const uint32_t name = NameOf(Current(), bound);
    _fBindings->Name(name).is_import = true;
    AddSet(name, bound);
    const uint32_t begin = _fBindings->BeginItem(is_aliased ? kImportAsNamePrefix : kImportPrefix);
    _fBindings->ItemText() += Dotted(module);
    if (is_aliased) {
      _fBindings->ItemText() += ' ';
      _fBindings->ItemText() += _fBindings->Name(name).name;
    }
    _fBindings->EndItem(name, begin);
  }
}

void CVisitor::VisitImportFrom(NodeIndex i, bool is_future) {
  NodeIndex child = Tree().FirstChild(i);
  TextView module = "__future__";
  if (!is_future) {
    if (child == kNoNode ||
        (TagOf(child) != Tag::kDottedName && TagOf(child) != Tag::kRelativeImport)) {
      return;
    }
    module = Dotted(child);
    child = Tree().NextChild(i, child);
  }
  for (; child != kNoNode; child = Tree().NextChild(i, child)) {
    uint32_t name = kNoIndex;
    TextView imported;
    NodeIndex bound = child;
    if (TagOf(child) == Tag::kWildcardImport) {
      imported = kStarName;
      name = _fBindings->GetName(Current(), kStarName);
      _fBindings->StarImports().push_back({Current(), module});
    } else {
      const bool is_aliased = TagOf(child) == Tag::kAliasedImport;
      const NodeIndex source = is_aliased ? Tree().FirstChild(child) : child;
      if (source == kNoNode || TagOf(source) != Tag::kDottedName) {
        continue;
      }
      bound = is_aliased ? LastChild(child) : Tree().FirstChild(source);
      if (bound == kNoNode || TagOf(bound) != Tag::kIdentifier || Identifier(bound).empty()) {
        continue;
      }
      imported = Dotted(source);
      name = NameOf(Current(), bound);
      _fBindings->Name(name).is_import = true;
    }
    AddSet(name, bound);
    const uint32_t begin = _fBindings->BeginItem(kFromImportPrefix);
    Bytes& text = _fBindings->ItemText();
    text += module;
    text += ' ';
    text += imported;
    _fBindings->EndItem(name, begin);
  }
}

void CVisitor::VisitTypeAlias(NodeIndex i) {
  const NodeIndex target = Tree().FirstChild(i);
  const NodeIndex value = LastChild(i);
  if (target == kNoNode) {
    return;
  }
  NodeIndex identifier = target;
  while (identifier < Tree()[target].next && TagOf(identifier) != Tag::kIdentifier) {
    ++identifier;
  }
  if (identifier == Tree()[target].next || Identifier(identifier).empty()) {
    return;
  }
  const uint32_t name = NameOf(Current(), identifier);
  AddSet(name, identifier);
  if (value != target) {
    AddHintText(name, value);
  }
}

void CVisitor::VisitDelete(NodeIndex i) {
  const NodeIndex end = Tree()[i].next;
  for (NodeIndex at = i + 1; at < end;) {
    const Tag tag = TagOf(at);
    if (tag == Tag::kIdentifier && !Identifier(at).empty()) {
      _fBindings->AddNumber(NameOf(Current(), at), kGetPrefix, size_t{Tree()[at].row} + 1);
    }
    const bool holds_targets = IsTargetSequence(tag) || tag == Tag::kParenthesized;
    at = holds_targets ? at + 1 : Tree()[at].next;
  }
}

void CVisitor::VisitDeclaration(NodeIndex i, bool is_global) {
  for (NodeIndex child = Tree().FirstChild(i); child != kNoNode;
       child = Tree().NextChild(i, child)) {
    if (TagOf(child) != Tag::kIdentifier || Identifier(child).empty()) {
      continue;
    }
    const uint32_t name = NameOf(Current(), child);
    (is_global ? _fBindings->Name(name).is_global : _fBindings->Name(name).is_nonlocal) = true;
    _fBindings->AddItem(name, is_global ? kGlobalPrefix : kNonlocalPrefix);
  }
}

void CVisitor::VisitCase(NodeIndex i) {
  const auto capture = [&](NodeIndex identifier) {
    const TextView leaf = Identifier(identifier);
    if (!leaf.empty() && leaf != "_") {
      AddSet(NameOf(Current(), identifier), identifier);
    }
  };
  for (NodeIndex pattern = Tree().FirstChild(i); pattern != kNoNode;
       pattern = Tree().NextChild(i, pattern)) {
    if (TagOf(pattern) != Tag::kCasePattern) {
      continue;
    }
    NodeIndex class_name = kNoNode;
    for (NodeIndex at = pattern; at < Tree()[pattern].next; ++at) {
      switch (TagOf(at)) {
        case Tag::kClassPattern:
          class_name = at + 1;
          break;
        case Tag::kDottedName:
          // A dotted name is a value to compare with, a single one takes what is there.
          if (at != class_name && ChildCount(at) == 1) {
            capture(at + 1);
          }
          break;
        case Tag::kSplatPattern:
        case Tag::kAsPattern: {
          const NodeIndex last = LastChild(at);
          if (last != kNoNode && TagOf(last) == Tag::kIdentifier) {
            capture(last);
          }
          break;
        }
        default:
          break;
      }
    }
  }
}

// ---- Targets

uint32_t CVisitor::NameOf(uint32_t scope, NodeIndex identifier) {
  return _fBindings->GetName(scope, Identifier(identifier));
}

uint32_t CVisitor::TargetName(NodeIndex target) {
  if (TagOf(target) == Tag::kIdentifier) {
    return Identifier(target).empty() ? kNoIndex : NameOf(Current(), target);
  }
  if (TagOf(target) == Tag::kAttribute && IsDotted(target) &&
      Tree().Text(target).size() <= kMostExpressionText) {
    return _fBindings->GetName(Current(), Dotted(target), true);
  }
  return kNoIndex;
}

void CVisitor::BindOne(NodeIndex target, CValue value, Within within) {
  const bool is_rest = IsSplat(TagOf(target));
  if (is_rest) {
    target = Tree().FirstChild(target);
  }
  const uint32_t name = target == kNoNode ? kNoIndex : TargetName(target);
  if (name == kNoIndex) {
    return;
  }
  AddSet(name, target);
  if (within == Within::kExpression) {
    _fBindings->AddNumber(name, kWithinExprPrefix, size_t{Tree()[target].row} + 1);
  }
  if (is_rest) {
    _fBindings->AddItem(name, kTypedLiteralPrefix, "list");
  } else {
    AddValue(name, value);
  }
}

// A pattern that is just a target in parentheses: "(x) = 1".
NodeIndex CVisitor::UnwrappedTarget(NodeIndex target) const {
  while (true) {
    const NodeIndex child = Tree().FirstChild(target);
    const bool is_pair_of_parentheses =
        child != kNoNode &&
        (TagOf(target) == Tag::kParenthesized ||
         (TagOf(target) == Tag::kTuplePattern && Tree()[child].next == Tree()[target].next &&
          !ContainsComma(
              Tree().Source().substr(Tree()[child].end, Tree()[target].end - Tree()[child].end))));
    if (!is_pair_of_parentheses) {
      return target;
    }
    target = child;
  }
}

void CVisitor::PushTargets(NodeIndex sequence, CValue value) {
  CTargetFrame frame{};
  frame.sequence = sequence;
  frame.end = Tree()[sequence].next;
  frame.count = static_cast<uint32_t>(ChildCount(sequence));
  frame.node =
      value.node == kNoNode || value.path.size() > kMostPathText ? kNoNode : Unwrapped(value.node);
  frame.path_begin = _fPath.size();
  _fPath += value.path;
  frame.path_end = _fPath.size();
  frame.element = kNoNode;
  if (frame.node != kNoNode && value.path.empty() && IsSequence(TagOf(frame.node)) &&
      ChildCount(frame.node) == frame.count && !HasSplat(frame.node) && !HasSplat(sequence)) {
    frame.element = Tree().FirstChild(frame.node);
  }
  _fFrames.push_back(frame);
}

void CVisitor::Bind(NodeIndex target, CValue value, Within within) {
  target = UnwrappedTarget(target);
  if (!IsTargetSequence(TagOf(target))) {
    BindOne(target, value, within);
    return;
  }
  // Without recursion: sequences nest as deep as the source says.
  _fFrames.clear();
  _fPath.clear();
  PushTargets(target, value);
  NodeIndex at = target + 1;
  while (!_fFrames.empty()) {
    CTargetFrame& frame = _fFrames.back();
    _fPath.resize(frame.path_end);
    if (at >= frame.end) {
      _fPath.resize(frame.path_begin);
      _fFrames.pop_back();
      continue;
    }
    CValue part;
    if (frame.element != kNoNode) {
      part.node = frame.element;
      frame.element = Tree().NextChild(frame.node, frame.element);
    } else if (frame.node != kNoNode) {
      const int64_t position = frame.after_rest ? int64_t{frame.position} - int64_t{frame.count}
                                                : int64_t{frame.position};
      _fPath += '[';
      _fPath += std::to_string(position);
      _fPath += ']';
      part.node = frame.node;
      part.path = TextView(_fPath).substr(frame.path_begin);
    }
    ++frame.position;
    const NodeIndex child = UnwrappedTarget(at);
    if (IsTargetSequence(TagOf(child))) {
      const Text path(part.path);  // _fPath grows
      PushTargets(child, {part.node, path});
      at = child + 1;
      continue;
    }
    frame.after_rest = frame.after_rest || IsSplat(TagOf(child));
    BindOne(child, part, within);
    at = Tree()[at].next;
  }
}

// ---- Hints and values

void CVisitor::AddHint(uint32_t name, NodeIndex hint) {
  _fBindings->AddNumber(name, kSetTypeHintPrefix, size_t{Tree()[hint].row} + 1);
  AddHintText(name, hint);
}

void CVisitor::AddHintText(uint32_t name, NodeIndex hint) {
  BytesView text = Tree().Text(hint);
  // A hint in quotes is a hint.
  const NodeIndex child = Tree().FirstChild(hint);
  if (child != kNoNode && TagOf(child) == Tag::kString && Tree()[child].next == Tree()[hint].next &&
      text.size() > 2 && (text[0] == '"' || text[0] == '\'') && text[1] != text[0] &&
      text.back() == text[0] && text.find('\\') == BytesView::npos) {
    text = text.substr(1, text.size() - 2);
  }
  const uint32_t begin = _fBindings->BeginItem(kTypeHintPrefix);
  AppendExpressionText(text, _fBindings->ItemText());
  EndText(name, begin, kTypeHintPrefix.size());
}

// The start of an item that holds names: says which scope they are meant in, where that is not the
// one that the item is for.
uint32_t CVisitor::BeginText(BytesView prefix) {
  if (_fMeantIn == kNoIndex) {
    return _fBindings->BeginItem(prefix);
  }
  const uint32_t begin = _fBindings->BeginItem(kSpecificScopePrefix);
  Bytes& text = _fBindings->ItemText();
  text += _fBindings->Scope(_fMeantIn).name;
  text += ' ';
  text += prefix;
  return begin;
}

// Takes the item unless nothing was appended to the first `size` bytes of it.
void CVisitor::EndText(uint32_t name, uint32_t begin, size_t size) {
  if (_fBindings->ItemText().size() == begin + size) {
    _fBindings->ItemText().resize(begin);
    return;
  }
  _fBindings->EndItem(name, begin);
}

void CVisitor::AddText(uint32_t name, BytesView prefix, NodeIndex node, TextView path) {
  const uint32_t begin = BeginText(prefix);
  const size_t size = _fBindings->ItemText().size() - begin;
  AppendText(node);
  if (_fBindings->ItemText().size() != begin + size) {
    _fBindings->ItemText() += path;
  }
  EndText(name, begin, size);
}

void CVisitor::AddCalled(uint32_t name, NodeIndex node) { AddText(name, kCalledPrefix, node, {}); }

void CVisitor::AddValue(uint32_t name, CValue value) {
  if (value.node == kNoNode) {
    return;
  }
  if (!value.path.empty()) {
    AddPart(name, Unwrapped(value.node), value.path);
    return;
  }
  _fAlternatives.clear();
  _fAlternatives.push_back(value.node);
  for (size_t i = 0; i < kMostAlternatives && !_fAlternatives.empty(); ++i) {
    const NodeIndex node = Unwrapped(_fAlternatives.back());
    _fAlternatives.pop_back();
    const NodeIndex first = Tree().FirstChild(node);
    const NodeIndex last = LastChild(node);
    switch (first == kNoNode ? Tag::kOther : TagOf(node)) {
      case Tag::kConditional:  // first if second else last
      case Tag::kBoolean:
        if (last != first) {
          _fAlternatives.push_back(last);
        }
        _fAlternatives.push_back(first);
        break;
      case Tag::kNamed:
      case Tag::kAssignment:
        _fAlternatives.push_back(last);
        break;
      default:
        AddWholeValue(name, node);
        break;
    }
  }
}

void CVisitor::AddWholeValue(uint32_t name, NodeIndex node) {
  if (const TextView literal = LiteralClass(node); !literal.empty()) {
    _fBindings->AddItem(name, kTypedLiteralPrefix, literal);
  } else if (node == _fNamedLambda && TagOf(node) == Tag::kLambda) {
    const uint32_t scope = LambdaScope(node);
    _fBindings->AddItem(name, _fBindings->Scope(scope).ibytes);
  } else if (TagOf(node) == Tag::kCall) {
    AddCalled(name, node + 1);
  } else if (TagOf(node) != Tag::kError) {
    AddText(name, IsDotted(node) ? BytesView() : kExpressionEquivPrefix, node, {});
  }
}

// What a part of the value is: its class where all elements are literals, else an expression.
void CVisitor::AddPart(uint32_t name, NodeIndex node, TextView path) {
  if (path == kIterationSubscript && (IsSequence(TagOf(node)) || TagOf(node) == Tag::kSet)) {
    size_t count = 0;
    bool all_literal = true;
    for (NodeIndex child = Tree().FirstChild(node); child != kNoNode && all_literal;
         child = Tree().NextChild(node, child)) {
      all_literal = ++count <= kMostIterated && !LiteralClass(child).empty();
    }
    if (all_literal) {
      for (NodeIndex child = Tree().FirstChild(node); child != kNoNode;
           child = Tree().NextChild(node, child)) {
        _fBindings->AddItem(name, kTypedLiteralPrefix, LiteralClass(child));
      }
      return;
    }
  }
  AddText(name, IsDotted(node) ? BytesView() : kExpressionEquivPrefix, node, path);
}

void CVisitor::AddDomain(uint32_t name, NodeIndex node) {
  node = Unwrapped(node);
  if (!IsSequence(TagOf(node)) && TagOf(node) != Tag::kSet) {
    return;
  }
  Bytes domain;
  for (NodeIndex child = Tree().FirstChild(node); child != kNoNode;
       child = Tree().NextChild(node, child)) {
    const BytesView text = Tree().Text(child);
    // Items are split at every ";"; an expression in a string makes it none that is known.
    if (!IsLiteral(TagOf(child)) || LiteralClass(child).empty() ||
        text.find(kInfoBytesSep) != BytesView::npos || HasInterpolation(child) ||
        domain.size() + text.size() > kMostDomainText) {
      return;
    }
    if (!domain.empty()) {
      domain += kInfoBytesSep;
    }
    domain += text;
  }
  if (domain.empty() || _fBindings->Name(name).is_attribute) {
    return;
  }
  uint32_t& place = _fBindings->Name(name).domain;
  if (place == kNoIndex) {
    place = static_cast<uint32_t>(_fBindings->Domains().size());
    _fBindings->Domains().push_back(std::move(domain));
    return;
  }
  Bytes& known = _fBindings->Domains()[place];
  if (known != domain && known.size() + domain.size() < kMostDomainText) {
    known += kInfoBytesSep;
    known += domain;
  }
}

// ---- Looking at nodes

NodeIndex CVisitor::Child(NodeIndex parent, Tag tag) const {
  NodeIndex child = Tree().FirstChild(parent);
  while (child != kNoNode && TagOf(child) != tag) {
    child = Tree().NextChild(parent, child);
  }
  return child;
}

NodeIndex CVisitor::LastChild(NodeIndex parent) const {
  NodeIndex last = kNoNode;
  for (NodeIndex child = Tree().FirstChild(parent); child != kNoNode;
       child = Tree().NextChild(parent, child)) {
    last = child;
  }
  return last;
}

size_t CVisitor::ChildCount(NodeIndex parent) const {
  size_t count = 0;
  for (NodeIndex child = Tree().FirstChild(parent); child != kNoNode;
       child = Tree().NextChild(parent, child)) {
    ++count;
  }
  return count;
}

bool CVisitor::HasSplat(NodeIndex sequence) const {
  for (NodeIndex child = Tree().FirstChild(sequence); child != kNoNode;
       child = Tree().NextChild(sequence, child)) {
    if (IsSplat(TagOf(child))) {
      return true;
    }
  }
  return false;
}

bool CVisitor::HasInterpolation(NodeIndex string) const {
  for (NodeIndex i = string + 1; i < Tree()[string].next; ++i) {
    if (TagOf(i) == Tag::kInterpolation) {
      return true;
    }
  }
  return false;
}

NodeIndex CVisitor::Unwrapped(NodeIndex node) const {
  while (TagOf(node) == Tag::kParenthesized && Tree().FirstChild(node) != kNoNode) {
    node = Tree().FirstChild(node);
  }
  return node;
}

bool CVisitor::IsDotted(NodeIndex node) const {
  if (Tree().Text(node).size() > kMostExpressionText) {
    return false;
  }
  while (TagOf(node) == Tag::kAttribute && Tree().FirstChild(node) != kNoNode) {
    node = Tree().FirstChild(node);
  }
  return TagOf(node) == Tag::kIdentifier;
}

TextView CVisitor::LiteralClass(NodeIndex node) const {
  switch (TagOf(node)) {
    case Tag::kInteger:
    case Tag::kFloat: {
      const BytesView text = Tree().Text(node);
      if (text.ends_with('j') || text.ends_with('J')) {
        return "complex";
      }
      return TagOf(node) == Tag::kInteger ? "int" : "float";
    }
    case Tag::kUnary: {
      const NodeIndex operand = Tree().FirstChild(node);
      return operand != kNoNode &&
                     (TagOf(operand) == Tag::kInteger || TagOf(operand) == Tag::kFloat)
                 ? LiteralClass(operand)
                 : TextView();
    }
    case Tag::kConcatenatedString: {
      const NodeIndex first = Tree().FirstChild(node);
      return first == kNoNode ? TextView() : LiteralClass(first);
    }
    case Tag::kString: {
      const BytesView text = Tree().Text(node);
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

TextView CVisitor::Identifier(NodeIndex node) {
  const TextView text = Tree().Text(node);
  return IsAscii(text) ? text : _fBindings->Keep(NormalForm(text));
}

TextView CVisitor::Dotted(NodeIndex node) {
  const TextView text = Tree().Text(node);
  const bool is_plain = std::all_of(text.begin(), text.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x80 && c > ' ' && c != '\\' && c != '#';
  });
  if (is_plain) {
    return text;
  }
  Text compact;
  AppendExpressionText(text, compact);
  return _fBindings->Keep(NormalForm(compact));
}

void CVisitor::AppendText(NodeIndex node) {
  AppendExpressionText(Tree().Text(node), _fBindings->ItemText());
}

}  // namespace pysource::standalone
