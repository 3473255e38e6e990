#include "pysource/scopeinfo/filestate/equivs.h"

#include "pysource/host/fastaccess.h"
#include "pysource/host/symbolinfo.h"

namespace pysource::scopeinfo {
namespace {

void Append(Bytes& joined, BytesView item) {
  if (!joined.empty()) {
    joined += kInfoBytesSep;
  }
  joined += item;
}

// Appends the items of `eq` that `is_wanted` takes; a value of one item is taken as it stands.
template <class IsWanted>
void AppendItems(Bytes& joined, BytesView eq, IsWanted is_wanted) {
  if (eq.find(kInfoBytesSep) == BytesView::npos) {
    Append(joined, eq);
    return;
  }
  ForEachNonNested(eq, kInfoBytesSep, [&](BytesView item) {
    if (is_wanted(item)) {
      Append(joined, item);
    }
  });
}

}  // namespace

CEquivStrings CollectEquivs(const CScopeInfo& info) {
  CEquivStrings equivs;
  if (info.for_scope != info.scanned_scope) {
    return equivs;
  }
  for (const auto& [name, eq] : info.type_equivs) {
    // A value that holds both kinds counts as a class value only: where a name is a class in one
    // branch and an import in another, readers look for the class.
    if (StrInStr(kClassPrefix, eq)) {
      AppendItems(equivs.class_equivs, eq,
                  [](BytesView item) { return item.starts_with(kClassPrefix); });
    } else if (StrInStr(kImportPrefix, eq) || StrInStr(kFromImportPrefix, eq)) {
      AppendItems(equivs.import_equivs, eq, [](BytesView item) {
        return item.starts_with(kImportPrefix) || item.starts_with(kFromImportPrefix);
      });
    }
  }
  return equivs;
}

}  // namespace pysource::scopeinfo
