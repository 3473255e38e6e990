// What the cache tells a host of the files and records that it holds in memory. These are copies:
// they stay as they are when the cache changes.
#pragma once

#include <cstddef>

#include "pysource/host/scoperef.h"
#include "pysource/host/text.h"
#include "pysource/scopeinfo/records/scopeinfokey.h"

namespace pysource::scopeinfo {

// A file that has an entry.
struct CHeldFile {
  DiskTime disk_mtime = 0;  // of the content that the records in memory belong to, or a marker
  Text scans_done;          // the names of the scans done, joined with ","
  bool is_primary_scan_done = false;
  bool is_module_in_database = false;  // the database holds its module scope, as far as known
  // What the next write of the file has to do beside its records.
  bool are_scans_done_unwritten = false;
  bool is_deletion_unwritten = false;  // the rows of the file are to be deleted first
};

// Where a record is, as far as the database is concerned.
enum class EHeldState { kInMemoryOnly, kInDatabase, kToWrite, kCouldNotWrite };

struct CHeldRecord {
  CScopeInfoKey key;
  CScopesSeenPtr scopes_seen;  // can be null
  EHeldState state = EHeldState::kInMemoryOnly;
  bool is_stale = false;  // its scan has to run again
};

// How many records there are in each state; a record counts in several.
struct CHeldCounts {
  size_t files = 0;
  size_t known = 0;
  size_t needs_scan = 0;
  size_t in_database = 0;
  size_t to_write = 0;
  size_t could_not_write = 0;
  size_t live_records = 0;
};

}  // namespace pysource::scopeinfo
