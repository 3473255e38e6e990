#include "pysource/host/symbolinfo/scopenames.h"

namespace pysource {

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

}  // namespace pysource
