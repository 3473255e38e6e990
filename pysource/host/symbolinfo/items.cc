#include "pysource/host/symbolinfo/items.h"

#include <charconv>

#include "pysource/host/symbolinfo/kinds.h"

namespace pysource {
namespace {

std::optional<int> ParseLine(BytesView digits) {
  int line = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), line);
  return error == std::errc() && end == digits.data() + digits.size() && line > 0
             ? std::optional<int>(line)
             : std::nullopt;
}

}  // namespace

CInfoItem ReadInfoItem(BytesView item) {
  CInfoItem read;
  read.text = item;
  read.kind = GetInfoBytesKind(item);
  while (read.kind == kSpecificUrlKind || read.kind == kSpecificScopeKind) {
    const size_t space = item.find(' ');
    if (space == BytesView::npos) {
      break;
    }
    const BytesView context = item.substr(kPrefixLen, space - kPrefixLen);
    if (read.kind == kSpecificUrlKind) {
      read.url = context;
      read.scope.reset();
    } else {
      read.scope = context;
    }
    item.remove_prefix(space + 1);
    read.kind = GetInfoBytesKind(item);
  }
  read.body = read.kind == kPlainEquivKind ? item : item.substr(kPrefixLen);
  if (IsLineKind(read.kind)) {
    read.line = ParseLine(read.body);
  }
  return read;
}

void CInfoItems::Iterator::Read() {
  if (_fAtEnd) {
    return;
  }
  const size_t end = NonNestedEnd(_fValue, _fBegin, kInfoBytesSep);
  _fItem = ReadInfoItem(_fValue.substr(_fBegin, end - _fBegin));
  if (IsLineKind(_fItem.kind)) {
    _fLine = _fItem.line;
  } else {
    _fItem.line = _fLine;
  }
}

CInfoItems::Iterator& CInfoItems::Iterator::operator++() {
  _fBegin += _fItem.text.size() + 1;
  _fAtEnd = _fBegin > _fValue.size();
  Read();
  return *this;
}

bool HasKind(BytesView value, Kind kind) {
  for (const CInfoItem& item : ItemsOf(value)) {
    if (item.kind == kind) {
      return true;
    }
  }
  return false;
}

}  // namespace pysource
