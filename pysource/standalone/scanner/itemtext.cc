#include "pysource/standalone/scanner/itemtext.h"

namespace pysource::standalone {
namespace {

constexpr bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

constexpr char Closing(char open) { return open == '(' ? ')' : open == '[' ? ']' : '}'; }

}  // namespace

void AppendExpressionText(BytesView source, Bytes& out) {
  const size_t begin = out.size();
  char open[kMostExpressionText];
  size_t depth = 0;
  char quote = 0;  // of the string that `at` is in
  bool triple = false;
  size_t at = 0;
  while (at < source.size() && out.size() - begin + depth < kMostExpressionText) {
    const char c = source[at++];
    if (IsSpace(c)) {
      continue;
    }
    if (quote != 0) {
      if (c == '\\' && at < source.size()) {
        const char escaped = source[at++];
        const bool keeps = escaped == '\\' || escaped == '\'' || escaped == '"' ||
                           (escaped >= 'a' && escaped <= 'z') || (escaped >= '0' && escaped <= '9');
        if (keeps) {
          out += c;
          out += escaped;
        } else if (!IsSpace(escaped)) {
          --at;  // a backslash that means itself
          out += c;
        }
        continue;
      }
      const bool is_end =
          c == quote &&
          (!triple || (at + 1 < source.size() && source[at] == quote && source[at + 1] == quote));
      if (is_end) {
        out.append(triple ? 3 : 1, quote);
        at += triple ? 2 : 0;
        quote = 0;
        continue;
      }
      const bool harmful = c == '(' || c == ')' || c == '[' || c == ']' || c == '{' || c == '}' ||
                           c == ';' || static_cast<unsigned char>(c) < 0x20;
      out += harmful ? '_' : c;
      continue;
    }
    switch (c) {
      case '#':
        at = source.find('\n', at);
        at = at == BytesView::npos ? source.size() : at;
        break;
      case '\\':
      case ';':
        break;
      case '(':
      case '[':
      case '{':
        open[depth++] = c;
        out += c;
        break;
      case ')':
      case ']':
      case '}':
        if (depth != 0) {
          out += Closing(open[--depth]);
        }
        break;
      case '"':
      case '\'':
        quote = c;
        triple = at + 1 < source.size() && source[at] == c && source[at + 1] == c;
        out.append(triple ? 3 : 1, c);
        at += triple ? 2 : 0;
        break;
      default:
        if (static_cast<unsigned char>(c) >= 0x20) {
          out += c;
        }
        break;
    }
  }
  if (at < source.size()) {
    // Not within a character of several bytes.
    while (at < source.size() && (static_cast<unsigned char>(source[at]) & 0xC0) == 0x80) {
      out += source[at++];
    }
    out += "...";
  }
  while (depth != 0) {
    out += Closing(open[--depth]);
  }
}

}  // namespace pysource::standalone
