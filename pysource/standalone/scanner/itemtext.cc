#include "pysource/standalone/scanner/itemtext.h"

#include <algorithm>

#include "pysource/host/symbolinfo/infobytes.h"
#include "pysource/host/symbolinfo/items.h"
#include "pysource/host/symbolinfo/kinds.h"

namespace pysource::standalone {
namespace {

// Strings in the replacement fields of strings that are followed inwards. What is nested deeper is
// still balanced, but may be taken for something else.
constexpr int kMostNestedStrings = 8;

constexpr bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

// What can stand in a name or a number.
constexpr bool IsWord(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         static_cast<unsigned char>(c) >= 0x80;
}

constexpr bool IsQuote(char c) { return c == '"' || c == '\''; }
constexpr bool IsOpening(char c) { return c == '(' || c == '[' || c == '{'; }
constexpr bool IsClosing(char c) { return c == ')' || c == ']' || c == '}'; }
constexpr char Closing(char open) { return open == '(' ? ')' : open == '[' ? ']' : '}'; }

size_t LineEnd(BytesView source, size_t at) {
  return std::min(source.find('\n', at), source.size());
}

// Whether the string whose quotes begin at `quote` has replacement fields ("rf'", "T'").
bool HasFields(BytesView source, size_t quote) {
  size_t begin = quote;
  while (begin != 0 && quote - begin < 3 && IsWord(source[begin - 1])) {
    --begin;
  }
  return quote - begin <= 2 &&
         source.substr(begin, quote - begin).find_first_of("fFtT") != BytesView::npos;
}

size_t StringEnd(BytesView source, size_t at, int nested);

// Behind the "}" of the replacement field whose text begins at `at`, or the end of the source.
size_t FieldEnd(BytesView source, size_t at, int nested) {
  size_t depth = 0;
  bool in_spec = false;
  while (at < source.size()) {
    const char c = source[at];
    if (c == '}' && depth == 0) {
      return at + 1;
    }
    if (in_spec) {
      at = c == '{' && nested < kMostNestedStrings ? FieldEnd(source, at + 1, nested + 1) : at + 1;
    } else if (IsQuote(c) && nested < kMostNestedStrings) {
      at = StringEnd(source, at, nested + 1);
    } else if (c == '#') {
      at = LineEnd(source, at);
    } else {
      depth += IsOpening(c) ? 1 : 0;
      depth -= IsClosing(c) && depth != 0 ? 1 : 0;
      in_spec = c == ':' && depth == 0;
      ++at;
    }
  }
  return at;
}

// Behind the closing quotes of the string whose quotes begin at `at`, or the end of the source.
size_t StringEnd(BytesView source, size_t at, int nested) {
  const char quote = source[at];
  const bool has_fields = HasFields(source, at);
  const bool triple = at + 2 < source.size() && source[at + 1] == quote && source[at + 2] == quote;
  at += triple ? 3 : 1;
  while (at < source.size()) {
    const char c = source[at++];
    if (c == '\\') {
      at += has_fields && at < source.size() && source[at] == '{' ? 0 : 1;
    } else if (c == quote) {
      if (!triple) {
        return at;
      }
      if (at + 1 < source.size() && source[at] == quote && source[at + 1] == quote) {
        return at + 2;
      }
    } else if (c == '{' && has_fields) {
      const bool is_doubled = at < source.size() && source[at] == '{';
      at = is_doubled ? at + 1 : FieldEnd(source, at, nested);
    }
  }
  return source.size();
}

// Whether the text of a string can stand in an item as it is, behind as many open brackets.
bool IsHarmless(BytesView text, size_t depth) {
  const size_t outside = depth;
  for (const char c : text) {
    if (IsOpening(c)) {
      ++depth;
    } else if ((IsClosing(c) && depth-- == outside) || c == '\0' || (c == ';' && depth == 0)) {
      return false;
    }
  }
  return depth == outside;
}

char Masked(char c) { return IsOpening(c) || IsClosing(c) || c == ';' || c == '\0' ? '_' : c; }

// What of a source is looked at: white space and comments included, an item needs no more.
constexpr size_t kMostSourceText = 64 * kMostExpressionText;

// One expression on its way into an item.
class CTextWriter {
 public:
  CTextWriter(BytesView source, Bytes& out)
      : _fSource(source.substr(0, kMostSourceText)),
        _fIsCut(source.size() > kMostSourceText),
        _fOut(out),
        _fBegin(out.size()) {}

  void Write() {
    while (_fAt < _fSource.size() && Room() != 0) {
      WriteToken();
    }
    if (_fIsCut || _fAt < _fSource.size()) {
      // Not within a character of several bytes.
      while (_fAt < _fSource.size() &&
             (static_cast<unsigned char>(_fSource[_fAt]) & 0xC0) == 0x80) {
        _fOut += _fSource[_fAt++];
      }
      _fOut += "...";
    }
    while (_fDepth != 0) {
      _fOut += Closing(_fOpen[--_fDepth]);
    }
  }

 private:
  size_t Room() const {
    const size_t used = _fOut.size() - _fBegin + _fDepth;
    return used < kMostExpressionText ? kMostExpressionText - used : 0;
  }

  void WriteToken() {
    const char c = _fSource[_fAt];
    if (IsSpace(c) || c == '\\' || c == '#') {
      _fAt = c == '#' ? LineEnd(_fSource, _fAt) : _fAt + 1;
      _fGap = true;
      return;
    }
    if (_fGap && _fOut.size() != _fBegin && IsWord(_fOut.back()) && IsWord(c)) {
      _fOut += ' ';
    }
    _fGap = false;
    if (IsQuote(c)) {
      WriteString();
      return;
    }
    ++_fAt;
    if (IsOpening(c)) {
      _fOpen[_fDepth++] = c;
      _fOut += c;
    } else if (IsClosing(c)) {
      if (_fDepth != 0) {
        _fOut += Closing(_fOpen[--_fDepth]);
      }
    } else if (c != ';' && static_cast<unsigned char>(c) >= 0x20) {
      _fOut += c;
    }
  }

  void WriteString() {
    const size_t end = StringEnd(_fSource, _fAt, 0);
    const BytesView text = _fSource.substr(_fAt, end - _fAt);
    if (text.size() <= Room() && IsHarmless(text, _fDepth)) {
      _fOut += text;
      _fAt = end;
      return;
    }
    while (_fAt < end && Room() != 0) {
      _fOut += Masked(_fSource[_fAt++]);
    }
  }

  const BytesView _fSource;
  const bool _fIsCut;
  Bytes& _fOut;
  const size_t _fBegin;
  size_t _fAt = 0;
  bool _fGap = false;  // white space was left out before what comes next
  char _fOpen[kMostExpressionText];
  size_t _fDepth = 0;
};

}  // namespace

void AppendExpressionText(BytesView source, Bytes& out) { CTextWriter(source, out).Write(); }

bool HasBareEquals(BytesView text) {
  size_t depth = 0;
  for (size_t at = 0; at < text.size();) {
    const char c = text[at];
    if (IsQuote(c)) {
      at = StringEnd(text, at, 0);
      continue;
    }
    if (c == '=' && depth == 0) {
      return true;
    }
    depth += IsOpening(c) ? 1 : 0;
    depth -= IsClosing(c) && depth != 0 ? 1 : 0;
    ++at;
  }
  return false;
}

void AppendQualified(BytesView text, Loc loc, TextView scope, Bytes& out) {
  const CInfoItem item = ReadInfoItem(text);
  if (item.url || MeansTheSameEverywhere(item.kind) || (!loc && IsLineKind(item.kind))) {
    out += text;
  } else if (item.scope) {
    // It names its scope already.
    out += loc ? LocationContext(loc) : Bytes();
    out += text;
  } else {
    out += PrefixWithLocationAndScope(text, loc, scope);
  }
}

}  // namespace pysource::standalone
