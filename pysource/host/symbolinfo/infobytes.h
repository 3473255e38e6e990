// Info bytes say what a name can be. A value is a list of alternatives separated by ";" at nesting
// depth zero; an item is a prefix (":" and a kind byte, see kinds.h) and a body, or a plain dotted
// name without any prefix. What an item says is meant in the scope that its record is for, unless
// it stands behind a context:
//
//   ":SC.m x"              the x that the scope C.m of this file sees
//   ":Ufile:///a.py :SC x" the x that the scope C of that file sees
//
// This header has what is done to values as wholes; items.h takes their items apart.
#pragma once

#include <cstdint>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/host/text.h"

namespace pysource {

using Kind = char;

inline constexpr size_t kPrefixLen = 2;
// Separates the alternatives of a value.
inline constexpr char kInfoBytesSep = ';';
// What a plain item counts as. No item starts with the prefix: a plain item has none.
inline constexpr Kind kPlainEquivKind = '=';
inline constexpr BytesView kPlainEquivSpec = ":=";

// The kind of the item that starts at `ibytes`: its kind byte, or kPlainEquivKind when it does not
// start with ":" and a further byte.
constexpr Kind GetInfoBytesKind(BytesView ibytes) {
  return ibytes.size() >= kPrefixLen && ibytes[0] == ':' ? ibytes[1] : kPlainEquivKind;
}

// Where the piece that starts at `begin` ends: at the first separator at nesting depth zero, or at
// the end of `s`. Round, square and curly brackets count together as one depth, which never goes
// below zero.
constexpr size_t NonNestedEnd(BytesView s, size_t begin, char sep) {
  size_t depth = 0;
  for (size_t i = begin; i < s.size(); ++i) {
    const char c = s[i];
    if (c == '(' || c == '[' || c == '{') {
      ++depth;
    } else if (c == ')' || c == ']' || c == '}') {
      depth -= depth != 0 ? 1 : 0;
    } else if (c == sep && depth == 0) {
      return i;
    }
  }
  return s.size();
}

// Calls `visit` with a view of each piece of `s` between separators at nesting depth zero. Empty
// input has no pieces; otherwise there is one more piece than there are separators, empty ones
// included.
template <class Visit>
void ForEachNonNested(BytesView s, char sep, Visit&& visit) {
  for (size_t begin = 0; !s.empty();) {
    const size_t end = NonNestedEnd(s, begin, sep);
    visit(s.substr(begin, end - begin));
    if (end == s.size()) {
      return;
    }
    begin = end + 1;
  }
}

// The pieces as views into `s`.
std::vector<BytesView> NonNestedSplit(BytesView s, char sep);

// `b` when `a` is empty, `a` when `b` is empty; otherwise `a` followed by those items of `b` that
// are not an item of the result yet, in their order, each after a ";".
Bytes JoinInfoBytes(BytesView a, BytesView b);

// The context of a file, to stand before an item: ":U", its encoded URL and one space.
Bytes LocationContext(Loc loc);
// `ibytes` qualified with the scope that it is meant in and, if `loc` is not absent, the file.
Bytes PrefixWithLocationAndScope(BytesView ibytes, Loc loc, TextView scope);

// Makes info bytes of single items.
class CInfoBytesBuilder {
 public:
  virtual ~CInfoBytesBuilder() = default;
  // A binding in line `n`; -1 for one without a line.
  virtual Bytes SetInfo(int64_t n) const;
  virtual Bytes FromImportInfo(BytesView module, BytesView name) const;
};

extern const CInfoBytesBuilder gInfoBytesBuilder;

}  // namespace pysource
