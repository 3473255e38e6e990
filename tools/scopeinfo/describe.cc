#include "tools/scopeinfo/describe.h"

#include <algorithm>
#include <utility>

#include "pysource/host/strutils.h"
#include "pysource/host/symbolinfo/bodies.h"
#include "pysource/host/symbolinfo/items.h"
#include "pysource/host/symbolinfo/kinds.h"
#include "pysource/host/symbolinfo/scopenames.h"

namespace pysource::tools {
namespace {

Text DescribeContext(const CInfoItem& item) {
  Text from;
  if (item.scope) {
    from = IsTopLevelModuleScope(*item.scope) ? "the module" : Text(*item.scope);
  }
  if (item.url) {
    const Text url = DecodeUrl(*item.url);
    from += (from.empty() ? "" : " in ") + (url.starts_with("file://") ? url.substr(7) : url);
  }
  return from;
}

Text DescribeValue(const CInfoItem& item) {
  const auto import = ReadImport(item.kind, item.body);
  if (!import) {
    return Text(item.body);
  }
  return (import->name.empty() ? "" : Text(import->name) + " from ") + Text(import->module);
}

}  // namespace

std::vector<CAlternative> DescribeInfoBytes(BytesView ibytes) {
  std::vector<CAlternative> alternatives;
  std::optional<CAlternative> open;  // a binding that nothing was said of yet
  const auto close = [&] {
    if (open) {
      alternatives.push_back(*std::exchange(open, std::nullopt));
    }
  };
  bool has_other_files = false;
  Text line_from;  // where the binding is that items belong to; empty: here
  for (const CInfoItem& item : ItemsOf(ibytes)) {
    CAlternative alternative;
    alternative.from = DescribeContext(item);
    has_other_files = has_other_files || item.url.has_value();
    alternative.kind = KindWords(item.kind);
    if (IsLineKind(item.kind)) {
      alternative.line = item.line;
      // "x: int = 3" is set at a line and hinted at it: one binding.
      if (!open || open->line != alternative.line || open->from != alternative.from) {
        close();
      }
      line_from = alternative.from;
      open = std::move(alternative);
      continue;
    }
    // What a method sets on self is bound at a line here, to what a name means there.
    if (line_from.empty() || line_from == alternative.from) {
      alternative.line = item.line;
    } else {
      close();
    }
    alternative.value = DescribeValue(item);
    open.reset();
    alternatives.push_back(std::move(alternative));
  }
  close();
  // What several methods set comes in the order of their names.
  const bool has_lines = std::all_of(alternatives.begin(), alternatives.end(),
                                     [](const CAlternative& a) { return a.line.has_value(); });
  if (has_lines && !has_other_files) {
    std::stable_sort(alternatives.begin(), alternatives.end(),
                     [](const CAlternative& a, const CAlternative& b) { return a.line < b.line; });
  }
  return alternatives;
}

Text ReadableArguments(BytesView inside) {
  Text readable;
  ForEachNonNested(inside, ',', [&](BytesView argument) {
    readable += readable.empty() ? "" : ", ";
    readable += argument;
    readable += argument.ends_with('=') ? "..." : "";
  });
  return readable;
}

}  // namespace pysource::tools
