// The classes and imports that a record names. The database keeps them in their own columns, so
// that one query returns all classes or imports of many files.
#pragma once

#include "pysource/host/text.h"
#include "pysource/scopeinfo/records/scopeinfo.h"

namespace pysource::scopeinfo {

struct CEquivStrings {
  Bytes class_equivs;   // class items joined with ";"
  Bytes import_equivs;  // import and from-import items joined with ";"
};

// The classes and imports of the record. Both are empty unless the record comes from a scan of the
// scope that it is for: only then do its names belong to the file.
CEquivStrings CollectEquivs(const CScopeInfo& info);

}  // namespace pysource::scopeinfo
