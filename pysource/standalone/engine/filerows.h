// Records as rows of the analysis database, for those who compare the two.
#pragma once

#include "pysource/host/analysisdb.h"
#include "pysource/host/location.h"
#include "pysource/scopeinfo/records/scopeinfo.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"
#include "pysource/standalone/scanner/scanner.h"

namespace pysource::standalone {

// The row that one record is stored as. Takes the encoded form out of _serialized_data.
CDatabaseRecord MakeRow(const scopeinfo::CScopeInfo& info);

// The record of a row as it came from the database; null when its bytes cannot be decoded.
scopeinfo::CScopeInfoPtr ReadRow(scopeinfo::CScopeInfoSerializer& serializer,
                                 const CDatabaseRecord& row, DiskTime disk_mtime);

// Whether the two say the same, whatever their keys. An absent dictionary is encoded like an empty
// one, so the two count as equal.
bool SameContent(const scopeinfo::CScopeInfo& a, const scopeinfo::CScopeInfo& b);

}  // namespace pysource::standalone
