// Whether every row of the database can be read, and still tells of files as they are.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "pysource/standalone/engine/findfiles.h"
#include "pysource/standalone/sqlitedb/sqliteanalysisdb.h"

namespace pysource::standalone {

struct CRowCheckReport {
  size_t files = 0;    // with a disk time
  size_t records = 0;  // rows read
  size_t bytes = 0;    // of their encoded forms

  // Rows, pages and files that cannot be what a save has written.
  std::vector<CPathNote> damaged;
  // Files that have changed or gone since they were stored, and records that rest on such files.
  // Nothing is wrong with them: they are scanned again when somebody asks.
  std::vector<CPathNote> stale;
};

// Reads every page, decodes every record and asks the disk for the time of every file that any of
// them has seen. Changes nothing.
CRowCheckReport CheckRows(CSqliteAnalysisDb& db);

}  // namespace pysource::standalone
