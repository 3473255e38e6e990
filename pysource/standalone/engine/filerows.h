// What one scan of a file found, as rows for the analysis database.
#pragma once

#include <cstddef>
#include <optional>
#include <unordered_map>
#include <vector>

#include "pysource/host/analysisdb.h"
#include "pysource/host/location.h"
#include "pysource/scopeinfo/records/scopeinfo.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"
#include "pysource/standalone/scanner/scanner.h"

namespace pysource::standalone {

// The scans-done text of a file that was wholly scanned: the scan names, sorted, joined with ",".
inline constexpr TextView kAllScansDone = ":attrs,:names";

// The rows of other files, by the file that they are for, in which they are filed.
using CRowsByLoc = std::unordered_map<Loc, std::vector<CDatabaseRecord>>;

struct CFileRows {
  std::vector<CDatabaseRecord> rows;  // those for the file itself
  size_t scopes = 0;
  size_t names = 0;          // names of the scopes, and attributes of instances
  size_t records = 0;        // those for other files included
  size_t encoded_bytes = 0;  // of these
};

// The row of one record. Takes the encoded form out of _serialized_data.
CDatabaseRecord MakeRow(const scopeinfo::CScopeInfo& info);

// The rows of the scan of `loc`; those for other files are appended to `for_others`. Takes the
// encoded forms out of the records.
CFileRows MakeRows(Loc loc, const CFileScan& scan, CRowsByLoc& for_others);

// The record of a row as it came from the database; null when its bytes cannot be decoded.
scopeinfo::CScopeInfoPtr ReadRow(scopeinfo::CScopeInfoSerializer& serializer,
                                 const CDatabaseRecord& row, DiskTime disk_mtime);

}  // namespace pysource::standalone
