// How a read reports what to scan, and how an operation collects what changed.
#pragma once

#include "pysource/host/ordereddict.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/text.h"
#include "pysource/scopeinfo/records/scopeinfokeyset.h"

namespace pysource::scopeinfo {

// From the scope to scan to the names of the scans to run: what would make an answer better. A
// record that no named scan made is reported with an empty scan name.
using CNeedsScanDict = CInsertionOrderedDict<CScopeRef, TextSet, CScopeRefHash, CScopeRefEqual>;

// From file to the keys scanned from it.
using CKeysDict = CInsertionOrderedDict<Loc, CScopeInfoKeySet>;

// Notes that the scope of the file changed.
void AddToChangedDict(CChangedDict& changed_dict, Loc loc, TextView scope);

}  // namespace pysource::scopeinfo
