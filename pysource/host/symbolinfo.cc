#include "pysource/host/symbolinfo.h"

#include <algorithm>
#include <string>

#include "pysource/host/strutils.h"

namespace pysource {

const CInfoBytesBuilder gInfoBytesBuilder;

std::optional<TextView> ParentScopeName(TextView scope) {
  if (scope.empty()) {
    return std::nullopt;
  }
  return ParentAndLeafScopeNames(scope).first;
}

std::pair<TextView, TextView> ParentAndLeafScopeNames(TextView scope) {
  const size_t dot = scope.rfind('.');
  if (dot == TextView::npos) {
    return {TextView(), scope};
  }
  return {scope.substr(0, dot), scope.substr(dot + 1)};
}

Text RemoveAllScopeIndicies(TextView scope) {
  const bool is_instance = IsInstanceScope(scope);
  if (is_instance) {
    scope.remove_suffix(kClassInstSuffix.size());
  }
  Text result;
  result.reserve(scope.size() + 1);
  bool in_index = false;
  for (const char c : scope) {
    if (c == '.') {
      in_index = false;
    } else if (c == kScopeIndexSep[0]) {
      in_index = true;
    }
    if (!in_index) {
      result += c;
    }
  }
  if (is_instance) {
    result += kClassInstSuffix;
  }
  return result;
}

Text GetInstanceNameForClass(TextView scope) {
  Text result(scope);
  result += kClassInstSuffix;
  return result;
}

std::vector<BytesView> NonNestedSplit(BytesView s, char sep) {
  std::vector<BytesView> pieces;
  ForEachNonNested(s, sep, [&](BytesView piece) { pieces.push_back(piece); });
  return pieces;
}

Bytes JoinInfoBytes(BytesView a, BytesView b) {
  if (a.empty()) {
    return Bytes(b);
  }
  Bytes result(a);
  if (b.empty()) {
    return result;
  }
  std::vector<BytesView> items = NonNestedSplit(a, kInfoBytesSep);
  ForEachNonNested(b, kInfoBytesSep, [&](BytesView item) {
    if (std::find(items.begin(), items.end(), item) == items.end()) {
      items.push_back(item);
      result += kInfoBytesSep;
      result += item;
    }
  });
  return result;
}

Bytes PrefixWithLocationAndScope(BytesView ibytes, Loc loc, TextView scope) {
  Bytes result;
  if (loc) {
    result += kSpecificUrlPrefix;
    result += EncodeUrl(loc->fUrl);
    result += ' ';
  }
  result += kSpecificScopePrefix;
  result += scope;
  result += ' ';
  result += ibytes;
  return result;
}

Bytes CInfoBytesBuilder::SetInfo(int64_t n) const { return Bytes(kSetPrefix) + std::to_string(n); }

Bytes CInfoBytesBuilder::FromImportInfo(BytesView module, BytesView name) const {
  Bytes result(kFromImportPrefix);
  result += module;
  result += ' ';
  result += name;
  return result;
}

}  // namespace pysource
