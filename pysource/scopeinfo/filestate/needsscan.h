// How a read reports which scans to run, and how an operation collects what changed.
#pragma once

#include "pysource/host/ordereddict.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/text.h"
#include "pysource/scopeinfo/records/scopeinfokeyset.h"

namespace pysource::scopeinfo {

// The scans that would make an answer better: from the scope to scan to the names of the scans to
// run. A stale record without a scan name is reported with an empty one.
using CNeedsScanDict = CInsertionOrderedDict<CScopeRef, TextSet, CScopeRefHash, CScopeRefEqual>;

// From a file to the keys of the records that were scanned from it.
using CKeysDict = CInsertionOrderedDict<Loc, CScopeInfoKeySet>;

// Adds the scope of the file to `changed_dict`.
void AddToChangedDict(CChangedDict& changed_dict, Loc loc, TextView scope);

}  // namespace pysource::scopeinfo
