// The one reader of info bytes: the items of a value, taken apart.
//
//   for (const CInfoItem& item : ItemsOf(":s3;:lint;:s5;:SC.m x")) ...
//
//   kind             body   line  scope
//   kSetKind         "3"    3     absent
//   kTypedLiteralKind "int" 3     absent
//   kSetKind         "5"    5     absent
//   kPlainEquivKind  "x"    5     "C.m"
//
// Nothing is allocated: an item is views into the value, good for as long as that is. Any bytes can
// be read; what is malformed comes out as an item of some kind with a body that makes no sense, and
// the functions of bodies.h answer absent for it.
#pragma once

#include <cstddef>
#include <iterator>
#include <optional>

#include "pysource/host/symbolinfo/infobytes.h"
#include "pysource/host/text.h"

namespace pysource {

// One alternative of what a name can be.
struct CInfoItem {
  BytesView text;  // all of it, as it stands in the value
  // The context that the body is meant in, where that is not the one that the value stands in. Of
  // several contexts around an item the innermost counts.
  std::optional<BytesView> url;  // the file, encoded: DecodeUrl has it back
  std::optional<TextView> scope;
  Kind kind = kPlainEquivKind;
  BytesView body;  // behind the prefix; all of a plain item
  // Of the binding that the item belongs to: its own for a kind that is a line, otherwise that of
  // the last such item before it in the value. Absent where there is none, or none is known (-1).
  std::optional<int> line;
};

// Takes a single item apart; its line is absent unless it is one itself.
CInfoItem ReadInfoItem(BytesView item);

// A range of the items of a value.
class CInfoItems {
 public:
  class Iterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = CInfoItem;
    using difference_type = std::ptrdiff_t;
    using pointer = const CInfoItem*;
    using reference = const CInfoItem&;

    explicit Iterator(BytesView value) : _fValue(value), _fAtEnd(value.empty()) { Read(); }
    reference operator*() const { return _fItem; }
    pointer operator->() const { return &_fItem; }
    Iterator& operator++();
    bool operator==(std::default_sentinel_t) const { return _fAtEnd; }

   private:
    void Read();

    BytesView _fValue;
    size_t _fBegin = 0;
    bool _fAtEnd;
    CInfoItem _fItem;
    std::optional<int> _fLine;
  };

  explicit CInfoItems(BytesView value) : _fValue(value) {}
  Iterator begin() const { return Iterator(_fValue); }
  std::default_sentinel_t end() const { return {}; }

 private:
  BytesView _fValue;
};

inline CInfoItems ItemsOf(BytesView value) { return CInfoItems(value); }

// Whether an item of the value is of that kind, whatever its context.
bool HasKind(BytesView value, Kind kind);

}  // namespace pysource
