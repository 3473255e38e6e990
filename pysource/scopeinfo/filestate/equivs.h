// Which classes and imports a record names: what the database keeps in columns of their own, so
// that all classes or imports of many files are one query.
#pragma once

#include "pysource/host/text.h"
#include "pysource/scopeinfo/records/scopeinfo.h"

namespace pysource::scopeinfo {

struct CEquivStrings {
  Bytes class_equivs;   // class items joined with ";"
  Bytes import_equivs;  // import and from-import items joined with ";"
};

// Both are empty unless the record is of a scope that was scanned by itself: only then do its names
// belong to the file.
CEquivStrings CollectEquivs(const CScopeInfo& info);

}  // namespace pysource::scopeinfo
