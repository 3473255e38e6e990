#include "pysource/scopeinfo/filestate/equivs.h"

#include "pysource/host/symbolinfo/infobytes.h"
#include "pysource/host/symbolinfo/kinds.h"

namespace pysource::scopeinfo {
namespace {

void Append(Bytes& joined, BytesView item) {
  if (!joined.empty()) {
    joined += kInfoBytesSep;
  }
  joined += item;
}

// Appends the items of `eq` that `is_wanted` accepts. A value of one item is appended unchecked.
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

// Which prefixes occur in the value before its first NUL. Every value of every record that a scan
// makes is searched for all three prefixes, so one pass finds them all.
struct CMarks {
  bool of_class = false;
  bool of_import = false;
};

CMarks MarksIn(BytesView eq) {
  static_assert(kClassPrefix.size() == 2 && kImportPrefix.size() == 2 &&
                kFromImportPrefix.size() == 2);
  static_assert(kClassPrefix[0] == ':' && kImportPrefix[0] == ':' && kFromImportPrefix[0] == ':');
  CMarks marks;
  for (size_t i = 0; i + 1 < eq.size() && eq[i] != '\0'; ++i) {
    if (eq[i] == ':') {
      const char mark = eq[i + 1];
      marks.of_class |= mark == kClassPrefix[1];
      marks.of_import |= mark == kImportPrefix[1] || mark == kFromImportPrefix[1];
    }
  }
  return marks;
}

}  // namespace

CEquivStrings CollectEquivs(const CScopeInfo& info) {
  CEquivStrings equivs;
  if (info.for_scope != info.scanned_scope) {
    return equivs;
  }
  for (const auto& [name, eq] : info.type_equivs) {
    // A value with both kinds counts as a class value only: if a name is a class in one branch and
    // an import in another, readers want the class.
    const CMarks marks = MarksIn(eq);
    if (marks.of_class) {
      AppendItems(equivs.class_equivs, eq,
                  [](BytesView item) { return item.starts_with(kClassPrefix); });
    } else if (marks.of_import) {
      AppendItems(equivs.import_equivs, eq, [](BytesView item) {
        return item.starts_with(kImportPrefix) || item.starts_with(kFromImportPrefix);
      });
    }
  }
  return equivs;
}

}  // namespace pysource::scopeinfo
