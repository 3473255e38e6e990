// Merging several records of a scope into one.
#pragma once

#include <vector>

#include "pysource/scopeinfo/records/scopeinfo.h"

namespace pysource::scopeinfo {

// Returns `primary_info`, into which it merges, in order, `other_info_seq` and then only the
// instance information of `inst_info_seq`. Afterwards merged_keys holds the keys of all of them. If
// both lists are empty, nothing changes. A null record in `inst_info_seq` is skipped.
// REQUIRES: `other_info_seq` holds no null record. Asserted.
CScopeInfoPtr MergeScopeInfoSeq(const CScopeInfoPtr& primary_info,
                                const std::vector<CScopeInfoPtr>& other_info_seq,
                                const std::vector<CScopeInfoPtr>& inst_info_seq);

// The record of a package without an __init__ file. It is for `init_loc`; `name_list` names the
// modules and packages in the folder. Each name is bound as by "from . import name".
CScopeInfoPtr CreateImplicitPackageInfo(Loc init_loc, const std::vector<Text>& name_list);

}  // namespace pysource::scopeinfo
