// Folding records into one.
#pragma once

#include <vector>

#include "pysource/scopeinfo/records/scopeinfo.h"

namespace pysource::scopeinfo {

// Merges the others, then the instance information alone of the last list, into `primary_info`, in
// place and in order, and returns it. An absent record among the others is an assertion failure,
// among the instance records it is passed over. Afterwards merged_keys holds the keys of all of
// them; with both lists empty nothing at all changes.
CScopeInfoPtr MergeScopeInfoSeq(const CScopeInfoPtr& primary_info,
                                const std::vector<CScopeInfoPtr>& other_info_seq,
                                const std::vector<CScopeInfoPtr>& inst_info_seq);

// The record of a package without an __init__ file: `init_loc` is the location that it is for,
// `name_list` the modules and packages inside. Each name is bound by "from . import name".
CScopeInfoPtr CreateImplicitPackageInfo(Loc init_loc, const std::vector<Text>& name_list);

}  // namespace pysource::scopeinfo
