#include "pysource/host/symbolinfo/infobytes.h"

#include <algorithm>
#include <string>

#include "pysource/host/strutils.h"
#include "pysource/host/symbolinfo/kinds.h"

namespace pysource {

const CInfoBytesBuilder gInfoBytesBuilder;

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

Bytes LocationContext(Loc loc) {
  Bytes result(kSpecificUrlPrefix);
  result += EncodeUrl(loc->fUrl);
  result += ' ';
  return result;
}

Bytes PrefixWithLocationAndScope(BytesView ibytes, Loc loc, TextView scope) {
  Bytes result = loc ? LocationContext(loc) : Bytes();
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
