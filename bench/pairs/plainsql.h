// The same rows in SQLite, stored as simply as possible: one table with the key columns as primary
// key, and one table of files.
#pragma once

#include <sqlite3.h>

#include <functional>
#include <string>
#include <vector>

#include "bench/support/world.h"
#include "pysource/host/analysisdb.h"

namespace pysource::bench {

// A row of a file, ready to be bound to a statement.
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
// A file with its rows.
struct CPlainFile {
  int64_t id = 0;
  Text url;
  DiskTime disk_mtime = 0;
  Text scans_done;
  std::vector<CPlainRow> rows;
};

// The content of the world's open database.
std::vector<CPlainFile> PlainFiles(CBenchWorld& world);

// The database. Throws when SQLite reports an error.
class CPlainDb {
 public:
  // Opens the database, and creates it if it does not exist: with a write-ahead log and
  // synchronous = NORMAL, like the project's.
  explicit CPlainDb(const std::string& path);
  ~CPlainDb();
  CPlainDb(const CPlainDb&) = delete;
  CPlainDb& operator=(const CPlainDb&) = delete;

  // Writes the file in one transaction.
  void Write(const CPlainFile& file);
  // Finds the file by its name and time, and calls `visit` with each of its rows. The views are
  // valid during the call of `visit`.
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
