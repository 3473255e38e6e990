// readrows DATABASE FILE: reads the rows of one file. The minimum of work for a query about an
// indexed file.
#include <sqlite3.h>

#include <cstdio>
#include <string>

#include "pysource/standalone/sqlitedb/schema.h"

int main(int argc, char** argv) {
  namespace sqlitedb = pysource::standalone::sqlitedb;
  if (argc != 3) {
    std::fprintf(stderr, "usage: readrows DATABASE FILE\n");
    return 2;
  }
  const std::string name = std::string("u:file://") + argv[2];
  sqlite3* db = nullptr;
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_open(argv[1], &db) != SQLITE_OK ||
      sqlite3_prepare_v2(db,
                         "SELECT r.scope, r.scan, r.scanned_file, r.scanned_scope, r.seen, "
                         "r.classes, r.imports, r.data FROM files f CROSS JOIN records r "
                         "ON r.id BETWEEN f.place AND f.place + ?2 WHERE f.id = ?1",
                         -1, &statement, nullptr) != SQLITE_OK) {
    std::fprintf(stderr, "readrows: %s: %s\n", argv[1], sqlite3_errmsg(db));
    return 1;
  }
  sqlite3_bind_int64(statement, 1, sqlitedb::FirstFileId(name));
  sqlite3_bind_int64(statement, 2, sqlitedb::kPlaceSpan - 1);
  size_t rows = 0;
  while (sqlite3_step(statement) == SQLITE_ROW) {
    ++rows;
    std::printf("%s %d\n", reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)),
                sqlite3_column_bytes(statement, 7));
  }
  sqlite3_finalize(statement);
  sqlite3_close(db);
  if (rows == 0) {
    std::fprintf(stderr, "readrows: no rows of %s\n", argv[2]);
  }
  return rows == 0 ? 1 : 0;
}
