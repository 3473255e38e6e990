// The same rows in SQLite, as plainly as they can lie: one table with the key columns as primary
// key, one of files.
#pragma once

#include <sqlite3.h>

#include <functional>
#include <string>
#include <vector>

#include "bench/support/world.h"
#include "pysource/host/analysisdb.h"

namespace pysource::bench {

// A file's rows, ready to be bound.
struct CPlainRow {
  Text scope;
  Text scan;
  int64_t scanned_file = 0;
  Text scanned_scope;
  Bytes seen;
  Bytes classes;
  Bytes imports;
  Bytes data;
};
struct CPlainFile {
  int64_t id = 0;
  Text url;
  DiskTime disk_mtime = 0;
  Text scans_done;
  std::vector<CPlainRow> rows;
};

// All that a database of the project holds.
std::vector<CPlainFile> PlainFiles(CBenchWorld& world);

class CPlainDb {
 public:
  // Made if it is not there: a write-ahead log, synchronous = NORMAL, as the project has it.
  explicit CPlainDb(const std::string& path);
  ~CPlainDb();
  CPlainDb(const CPlainDb&) = delete;
  CPlainDb& operator=(const CPlainDb&) = delete;

  // One transaction.
  void Write(const CPlainFile& file);
  // Calls `visit` with each row of the file, which is found by its name and time. Views are good
  // for the time of the call.
  struct CRowView {
    TextView scope;
    TextView scan;
    int64_t scanned_file;
    TextView scanned_scope;
    BytesView data;
  };
  void Read(TextView url, DiskTime disk_mtime, const std::function<void(const CRowView&)>& visit);

 private:
  sqlite3_stmt* Prepare(const char* sql);
  void Step(sqlite3_stmt* statement);

  sqlite3* _fDb = nullptr;
  sqlite3_stmt* _fBegin = nullptr;
  sqlite3_stmt* _fCommit = nullptr;
  sqlite3_stmt* _fPutFile = nullptr;
  sqlite3_stmt* _fPutRow = nullptr;
  sqlite3_stmt* _fRead = nullptr;
};

}  // namespace pysource::bench
