#include "pysource/scopeinfo/filestate/needsscan.h"

#include <memory>

namespace pysource::scopeinfo {

void AddToChangedDict(CChangedDict& changed_dict, Loc loc, TextView scope) {
  std::shared_ptr<TextSet>& scope_set = changed_dict.GetOrMake(loc);
  if (scope_set == nullptr) {
    scope_set = std::make_shared<TextSet>();
  }
  scope_set->emplace(scope);
}

}  // namespace pysource::scopeinfo
