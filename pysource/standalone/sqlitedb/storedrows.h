// What the database holds, as those see it who look at all of it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "pysource/host/analysisdb.h"
#include "pysource/host/location.h"
#include "pysource/host/text.h"
#include "pysource/standalone/files/disktimes.h"

namespace pysource::standalone {

// One stored row.
struct CStoredRow {
  // Without the scopes seen where they cannot be decoded. for_loc is absent when the database does
  // not know the file, or it lies in a workspace that was not given.
  CDatabaseRecord record;
  Text file;               // the file's name as stored: "w:" and a relative path, or "u:" and a URL
  DiskTime disk_time = 0;  // of the file
  Text error;              // what is wrong with the row; empty when nothing is
};

// One file that has rows, or had some at that time.
struct CStoredFile {
  Loc loc;
  DiskTime disk_time = 0;
  Text scans_done;                      // of the present scanner
  std::optional<CContentMark> content;  // as VisitFilesAndTies tells it
  bool is_outdated = false;             // the scans of another scanner are stored
};

// A row that was made from another file than the one it is for, or rests on one.
struct CTie {
  Loc for_loc;
  Loc scanned_loc;             // absent when the database does not know the file
  CScopesSeenPtr scopes_seen;  // null where they cannot be decoded
};

// How much there is, and what room it takes.
struct CSqliteDbStats {
  uint64_t files = 0;        // files with a disk time
  uint64_t known_files = 0;  // those, and the ones that rows merely refer to
  uint64_t scopes = 0;       // scopes with records
  uint64_t records = 0;      //
  std::map<Text, uint64_t> records_by_scan;
  uint64_t data_bytes = 0;         // encoded records
  uint64_t equivs_bytes = 0;       // class and import equivalences
  uint64_t name_bytes = 0;         // scope names
  uint64_t scopes_seen_bytes = 0;  // those of records that have not seen just their own file
  uint64_t database_bytes = 0;     // pages of the database, free ones included
  uint64_t free_bytes = 0;         // of these, in pages that wait to be used again
};

}  // namespace pysource::standalone
