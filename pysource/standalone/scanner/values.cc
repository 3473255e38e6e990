#include "pysource/standalone/scanner/values.h"

#include <glib.h>

#include <algorithm>
#include <memory>
#include <utility>

#include "pysource/host/symbolinfo/infobytes.h"
#include "pysource/host/symbolinfo/kinds.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/standalone/scanner/itemtext.h"
#include "pysource/standalone/scanner/nodes.h"

namespace pysource::standalone {
namespace {

// Alternatives of one value (a if b else c or d ...) that are followed.
constexpr size_t kMostAlternatives = 16;
// Elements of a literal that are looked at to tell what iterating over it gives.
constexpr size_t kMostIterated = 64;
// The longest __all__ of the standard library takes some 6000 bytes; what is longer is data that
// nobody asks the domain of.
constexpr size_t kMostDomainText = 16384;

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

}  // namespace

void CValueWriter::AddHint(uint32_t name, NodeIndex hint) {
  _fBindings->AddNumber(name, kSetTypeHintPrefix, LineOf(hint));
  AddHintText(name, hint);
}

void CValueWriter::AddHintText(uint32_t name, NodeIndex hint) {
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

void CValueWriter::AddValue(uint32_t name, const CValue& value) {
  if (value.node == kNoNode) {
    return;
  }
  if (!value.path.empty()) {
    AddPart(name, {Unwrapped(Tree(), value.node), value.path, value.meant_in});
    return;
  }
  _fAlternatives.clear();
  _fAlternatives.push_back(value.node);
  for (size_t i = 0; i < kMostAlternatives && !_fAlternatives.empty(); ++i) {
    const NodeIndex node = Unwrapped(Tree(), _fAlternatives.back());
    _fAlternatives.pop_back();
    const NodeIndex first = Tree().FirstChild(node);
    const NodeIndex last = Tree().LastChild(node);
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
        AddWholeValue(name, {node, {}, value.meant_in});
        break;
    }
  }
}

void CValueWriter::AddWholeValue(uint32_t name, const CValue& value) {
  if (const TextView literal = LiteralClass(Tree(), value.node); !literal.empty()) {
    _fBindings->AddItem(name, kTypedLiteralPrefix, literal);
  } else if (TagOf(value.node) == Tag::kCall) {
    AddCalled(name, value.node + 1, value.meant_in);
  } else if (TagOf(value.node) != Tag::kError) {
    AddExpression(name, value);
  }
}

// What a part of the value is: its class where all elements are literals, else an expression.
void CValueWriter::AddPart(uint32_t name, const CValue& value) {
  const Tag tag = TagOf(value.node);
  if (value.path == kIterationSubscript && (IsSequence(tag) || tag == Tag::kSet)) {
    size_t count = 0;
    const auto elements = Tree().Children(value.node);
    const bool all_literal = std::all_of(elements.begin(), elements.end(), [&](NodeIndex element) {
      return ++count <= kMostIterated && !LiteralClass(Tree(), element).empty();
    });
    if (all_literal) {
      for (const NodeIndex element : elements) {
        _fBindings->AddItem(name, kTypedLiteralPrefix, LiteralClass(Tree(), element));
      }
      return;
    }
  }
  AddExpression(name, value);
}

// A name stands for itself.
void CValueWriter::AddExpression(uint32_t name, const CValue& value) {
  AddText(name, IsDotted(Tree(), value.node) ? BytesView() : kExpressionEquivPrefix, value);
}

void CValueWriter::AddText(uint32_t name, BytesView prefix, const CValue& value) {
  const uint32_t begin = BeginText(prefix, value.meant_in);
  const size_t size = _fBindings->ItemText().size() - begin;
  Bytes& text = _fBindings->ItemText();
  const bool is_wrapped =
      !value.path.empty() && !IsPrimary(TagOf(value.node)) && !Tree().Text(value.node).empty();
  text += is_wrapped ? "(" : "";
  AppendText(value.node);
  text += is_wrapped ? ")" : "";
  if (text.size() != begin + size) {
    text += value.path;
  }
  EndText(name, begin, size);
}

// The start of an item that holds names: says which scope they are meant in, where that is not the
// one that the item is for.
uint32_t CValueWriter::BeginText(BytesView prefix, uint32_t meant_in) {
  if (meant_in == kNoIndex) {
    return _fBindings->BeginItem(prefix);
  }
  const uint32_t begin = _fBindings->BeginItem(kSpecificScopePrefix);
  Bytes& text = _fBindings->ItemText();
  text += _fBindings->Scope(meant_in).name;
  text += ' ';
  text += prefix;
  return begin;
}

// Takes the item unless nothing was appended to the first `size` bytes of it.
void CValueWriter::EndText(uint32_t name, uint32_t begin, size_t size) {
  if (_fBindings->ItemText().size() == begin + size) {
    _fBindings->ItemText().resize(begin);
    return;
  }
  _fBindings->EndItem(name, begin);
}

void CValueWriter::AddDomain(uint32_t name, NodeIndex node) {
  node = Unwrapped(Tree(), node);
  if (!IsSequence(TagOf(node)) && TagOf(node) != Tag::kSet) {
    return;
  }
  Bytes domain;
  for (const NodeIndex child : Tree().Children(node)) {
    const BytesView text = Tree().Text(child);
    // Items are split at every ";"; an expression in a string makes it none that is known.
    if (!IsPlainLiteral(Tree(), child) || text.find(kInfoBytesSep) != BytesView::npos ||
        HasInterpolation(Tree(), child) || domain.size() + text.size() > kMostDomainText) {
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

// ---- Text of the source

TextView CValueWriter::Identifier(NodeIndex node) {
  const TextView text = Tree().Text(node);
  return IsAscii(text) ? text : _fBindings->Keep(NormalForm(text));
}

TextView CValueWriter::Dotted(NodeIndex node) {
  TextView text = Tree().Text(node);
  if (text.starts_with('*')) {
    text.remove_prefix(1);  // a starred target
  }
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

void CValueWriter::AppendText(NodeIndex node) {
  AppendExpressionText(Tree().Text(node), _fBindings->ItemText());
}

}  // namespace pysource::standalone
