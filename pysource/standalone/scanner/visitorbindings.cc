// The part of CVisitor that knows the statements and expressions that bind names; its other part,
// visitor.cc, knows those that make scopes.
#include <utility>

#include "pysource/host/symbolinfo/kinds.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/standalone/scanner/itemtext.h"
#include "pysource/standalone/scanner/nodes.h"
#include "pysource/standalone/scanner/visitor.h"

namespace pysource::standalone {
namespace {

constexpr bool IsNameStart(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' ||
         static_cast<unsigned char>(c) >= 0x80;
}

}  // namespace

// ---- Statements and expressions that bind

void CVisitor::VisitFor(NodeIndex i, Within within) {
  const NodeIndex target = Tree().FirstChild(i);
  const NodeIndex iterable = target == kNoNode ? kNoNode : Tree().NextChild(i, target);
  if (iterable == kNoNode) {
    return;
  }
  const bool is_first_clause = Tree()[i].mark != 0;
  Bind(target,
       {iterable, kIterationSubscript,
        is_first_clause ? _fBindings->Scope(Current()).parent : kNoIndex},
       within);
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
    value = Tree().LastChild(value);  // a = b = value
  }
  const bool is_wrapped = UnwrappedTarget(Tree(), target) != target;
  if (is_wrapped && value == kNoNode) {
    return;  // "(x): int" declares nothing
  }
  target = UnwrappedTarget(Tree(), target);
  if (IsTargetSequence(TagOf(target))) {
    Bind(target, {value, {}, kNoIndex}, Within::kStatement);
    return;
  }
  const uint32_t name = TargetName(target);
  if (name == kNoIndex) {
    return;
  }
  if (value != kNoNode) {
    _fValues.AddSet(name, target);
  }
  if (hint != kNoNode) {
    _fValues.AddHint(name, hint);
  }
  if (value != kNoNode) {
    AddNamedValue(name, value);
    _fValues.AddDomain(name, value);
  }
}

void CVisitor::VisitAugmented(NodeIndex i) {
  const NodeIndex target = Tree().FirstChild(i);
  const NodeIndex value = target == kNoNode ? kNoNode : Tree().NextChild(i, target);
  if (value == kNoNode) {
    return;
  }
  const uint32_t name = TargetName(UnwrappedTarget(Tree(), target));
  if (name == kNoIndex) {
    return;
  }
  _fValues.AddSet(name, target);
  const uint32_t begin = _fBindings->BeginItem(kExpressionEquivPrefix);
  _fValues.AppendText(target);
  BytesView op =
      Tree().Source().substr(Tree()[target].end, Tree()[value].begin - Tree()[target].end);
  op = op.substr(0, op.find('='));
  AppendExpressionText(op, _fBindings->ItemText());
  _fValues.AppendText(value);
  _fBindings->EndItem(name, begin);
  _fValues.AddDomain(name, value);
}

void CVisitor::VisitExcept(NodeIndex i) {
  NodeIndex caught = Tree().FirstChild(i);
  if (caught == kNoNode) {
    return;
  }
  NodeIndex target = kNoNode;
  if (TagOf(caught) == Tag::kAsPattern) {
    _fDone = caught;
    const NodeIndex wrapped = Tree().Child(caught, Tag::kAsPatternTarget);
    target = wrapped == kNoNode ? kNoNode : Tree().FirstChild(wrapped);
    caught = Tree().FirstChild(caught);
  } else {
    target = Tree().NextChild(i, caught);
  }
  if (target == kNoNode || TagOf(target) != Tag::kIdentifier ||
      _fValues.Identifier(target).empty()) {
    return;
  }
  const uint32_t name = NameOf(Current(), target);
  _fValues.AddSet(name, target);
  // "except* C" after an "except" clause is taken for "except" and a starred expression.
  if (TagOf(i) == Tag::kExceptGroup || IsSplat(TagOf(caught))) {
    _fBindings->AddItem(name, kCalledPrefix, "ExceptionGroup");
    return;
  }
  caught = Unwrapped(Tree(), caught);
  if (TagOf(caught) != Tag::kTuple) {
    _fValues.AddCalled(name, caught);
    return;
  }
  for (const NodeIndex child : Tree().Children(caught)) {
    if (!IsSplat(TagOf(child))) {
      _fValues.AddCalled(name, child);
    }
  }
}

void CVisitor::VisitAsPattern(NodeIndex i) {
  const NodeIndex value = Tree().FirstChild(i);
  const NodeIndex target = Tree().Child(i, Tag::kAsPatternTarget);
  // One of a match statement has no target, and its clause takes care of it.
  if (i == _fDone || target == kNoNode || Tree().FirstChild(target) == kNoNode) {
    return;
  }
  Bind(Tree().FirstChild(target), {value, {}, kNoIndex}, Within::kStatement);
}

void CVisitor::VisitNamed(NodeIndex i) {
  const NodeIndex target = Tree().FirstChild(i);
  const NodeIndex value = Tree().LastChild(i);
  if (Tree()[i].mark != 0 || target == kNoNode || value == target ||
      TagOf(target) != Tag::kIdentifier || _fValues.Identifier(target).empty()) {
    return;
  }
  const uint32_t scope = AroundComprehensions();
  const uint32_t name = NameOf(scope, target);
  _fValues.AddSet(name, target);
  _fValues.AddWithinExpression(name, target);
  if (scope != Current()) {
    _fValues.AddValue(name, {value, {}, Current()});
  } else {
    AddNamedValue(name, value);
  }
}

void CVisitor::MarkFormatSpecs(NodeIndex interpolation) {
  for (NodeIndex at = interpolation + 1; at < Tree()[interpolation].next;) {
    const Tag tag = TagOf(at);
    if (tag == Tag::kNamed) {
      (*_fTree)[at].mark = 1;
    }
    // Within brackets and strings it is what it looks like. An unbracketed tuple is a list of
    // expressions, and other operators have no brackets of their own.
    const bool has_no_brackets = tag == Tag::kNamed || tag == Tag::kExpressionList ||
                                 tag == Tag::kConditional || tag == Tag::kBoolean ||
                                 tag == Tag::kUnary || tag == Tag::kOther || tag == Tag::kYield;
    at = has_no_brackets ? at + 1 : Tree()[at].next;
  }
}

void CVisitor::VisitYield(NodeIndex i) {
  const NodeIndex value = Tree().FirstChild(i);
  if (value == kNoNode) {
    return;
  }
  // "from" is no node; it stands between the keyword and the value.
  const BytesView between =
      Tree().Source().substr(Tree()[i].begin, Tree()[value].begin - Tree()[i].begin);
  const bool is_from = between.find("from") != BytesView::npos;
  AddOutcome(kYieldName, value, is_from ? kIterationSubscript : TextView());
}

void CVisitor::AddOutcome(TextView name, NodeIndex value, TextView path) {
  const ScopeKind kind = _fBindings->Scope(Current()).kind;
  if (value == kNoNode || kind == ScopeKind::kModule || kind == ScopeKind::kClass) {
    return;
  }
  const uint32_t outcome = _fBindings->GetName(Current(), name);
  _fValues.AddWithinExpression(outcome, value);
  if (path.empty()) {
    AddNamedValue(outcome, value);
  } else {
    _fValues.AddValue(outcome, {value, path, kNoIndex});
  }
}

void CVisitor::VisitImport(NodeIndex i) {
  for (const NodeIndex child : Tree().Children(i)) {
    const bool is_aliased = TagOf(child) == Tag::kAliasedImport;
    const NodeIndex module = is_aliased ? Tree().FirstChild(child) : child;
    if (module == kNoNode || TagOf(module) != Tag::kDottedName) {
      continue;
    }
    const NodeIndex bound = is_aliased ? Tree().LastChild(child) : Tree().FirstChild(module);
    if (bound == kNoNode || TagOf(bound) != Tag::kIdentifier ||
        _fValues.Identifier(bound).empty()) {
      continue;
    }
    const uint32_t name = NameOf(Current(), bound);
    _fBindings->Name(name).is_import = true;
    _fValues.AddSet(name, bound);
    const uint32_t begin = _fBindings->BeginItem(is_aliased ? kImportAsNamePrefix : kImportPrefix);
    _fBindings->ItemText() += _fValues.Dotted(module);
    if (is_aliased) {
      _fBindings->ItemText() += ' ';
      _fBindings->ItemText() += _fBindings->Name(name).name;
    }
    _fBindings->EndItem(name, begin);
    _fBindings->NoteImport(name, _fValues.LineOf(bound));
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
    module = _fValues.Dotted(child);
    child = Tree().NextChild(i, child);
  }
  for (; child != kNoNode; child = Tree().NextChild(i, child)) {
    uint32_t name = kNoIndex;
    TextView imported;
    NodeIndex bound = child;
    if (TagOf(child) == Tag::kWildcardImport) {
      imported = kStarImportsName;
      name = _fBindings->GetName(Current(), kStarImportsName);
      _fBindings->StarImports().push_back({Current(), module});
    } else {
      const bool is_aliased = TagOf(child) == Tag::kAliasedImport;
      const NodeIndex source = is_aliased ? Tree().FirstChild(child) : child;
      if (source == kNoNode || TagOf(source) != Tag::kDottedName) {
        continue;
      }
      bound = is_aliased ? Tree().LastChild(child) : Tree().FirstChild(source);
      if (bound == kNoNode || TagOf(bound) != Tag::kIdentifier ||
          _fValues.Identifier(bound).empty()) {
        continue;
      }
      imported = _fValues.Dotted(source);
      name = NameOf(Current(), bound);
      _fBindings->Name(name).is_import = true;
    }
    _fValues.AddSet(name, bound);
    const uint32_t begin = _fBindings->BeginItem(kFromImportPrefix);
    Bytes& text = _fBindings->ItemText();
    text += module;
    text += ' ';
    text += imported;
    _fBindings->EndItem(name, begin);
    if (TagOf(child) != Tag::kWildcardImport) {
      _fBindings->NoteImport(name, _fValues.LineOf(bound));
    }
  }
}

void CVisitor::VisitTypeAlias(NodeIndex i) {
  const NodeIndex target = Tree().FirstChild(i);
  const NodeIndex value = Tree().LastChild(i);
  if (target == kNoNode) {
    return;
  }
  // To Python, "type" begins an alias only where a name follows: "type(x).a = 1" is an assignment.
  if (const BytesView text = Tree().Text(target); text.empty() || !IsNameStart(text[0])) {
    return;
  }
  NodeIndex identifier = target;
  while (identifier < Tree()[target].next && TagOf(identifier) != Tag::kIdentifier) {
    ++identifier;
  }
  if (identifier == Tree()[target].next || _fValues.Identifier(identifier).empty()) {
    return;
  }
  const uint32_t name = NameOf(Current(), identifier);
  _fValues.AddSet(name, identifier);
  if (value != target) {
    _fValues.AddHintText(name, value);
  }
}

void CVisitor::VisitDelete(NodeIndex i) {
  const NodeIndex end = Tree()[i].next;
  for (NodeIndex at = i + 1; at < end;) {
    const Tag tag = TagOf(at);
    if (tag == Tag::kIdentifier && !_fValues.Identifier(at).empty()) {
      _fBindings->AddNumber(NameOf(Current(), at), kGetPrefix, _fValues.LineOf(at));
    }
    const bool holds_targets = IsTargetSequence(tag) || tag == Tag::kParenthesized;
    at = holds_targets ? at + 1 : Tree()[at].next;
  }
}

void CVisitor::VisitDeclaration(NodeIndex i, bool is_global) {
  for (const NodeIndex child : Tree().Children(i)) {
    if (TagOf(child) != Tag::kIdentifier || _fValues.Identifier(child).empty()) {
      continue;
    }
    const uint32_t name = NameOf(Current(), child);
    (is_global ? _fBindings->Name(name).is_global : _fBindings->Name(name).is_nonlocal) = true;
    _fBindings->AddItem(name, is_global ? kGlobalPrefix : kNonlocalPrefix);
  }
}

void CVisitor::VisitCase(NodeIndex i) {
  const auto capture = [&](NodeIndex identifier) {
    const TextView leaf = _fValues.Identifier(identifier);
    if (!leaf.empty() && leaf != "_") {
      _fValues.AddSet(NameOf(Current(), identifier), identifier);
    }
  };
  for (const NodeIndex pattern : Tree().Children(i)) {
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
          if (at != class_name && Tree().ChildCount(at) == 1) {
            capture(at + 1);
          }
          break;
        case Tag::kSplatPattern:
        case Tag::kAsPattern: {
          const NodeIndex last = Tree().LastChild(at);
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
  return _fBindings->GetName(scope, _fValues.Identifier(identifier));
}

uint32_t CVisitor::TargetName(NodeIndex target) {
  if (TagOf(target) == Tag::kIdentifier) {
    return _fValues.Identifier(target).empty() ? kNoIndex : NameOf(Current(), target);
  }
  if (TagOf(target) == Tag::kAttribute && IsDotted(Tree(), target) &&
      Tree().Text(target).size() <= kMostExpressionText) {
    return _fBindings->GetName(Current(), _fValues.Dotted(target), true);
  }
  return kNoIndex;
}

void CVisitor::Bind(NodeIndex target, const CValue& value, Within within) {
  CTargets::CBound bound;
  for (_fTargets.Begin(Tree(), target, value); _fTargets.Next(bound);) {
    BindOne(bound.target, bound.value, within);
  }
}

void CVisitor::BindOne(NodeIndex target, const CValue& value, Within within) {
  const bool is_rest = IsRestTarget(Tree(), target);
  if (IsSplat(TagOf(target))) {
    target = Tree().FirstChild(target);
  }
  const uint32_t name = target == kNoNode ? kNoIndex : TargetName(target);
  if (name == kNoIndex) {
    return;
  }
  _fValues.AddSet(name, target);
  if (within == Within::kExpression) {
    _fValues.AddWithinExpression(name, target);
  }
  if (is_rest) {
    _fBindings->AddItem(name, kTypedLiteralPrefix, "list");
  } else {
    _fValues.AddValue(name, value);
  }
}

// The value of a name that is bound to it alone: a lambda is then a function of that name.
void CVisitor::AddNamedValue(uint32_t name, NodeIndex value) {
  const NodeIndex whole = Unwrapped(Tree(), value);
  if (TagOf(whole) == Tag::kLambda) {
    _fBindings->AddItem(name, _fBindings->Scope(LambdaScope(whole)).ibytes);
  } else {
    _fValues.AddValue(name, {value, {}, kNoIndex});
  }
}

}  // namespace pysource::standalone
