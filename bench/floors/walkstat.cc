// walkstat ROOT DATABASE: walks over the tree, calls stat for every Python file, and reads the
// files of the database with one query. The minimum of work for an index run that finds no changes.
#include <sqlite3.h>

#include <cstdio>
#include <string>

#include "bench/floors/walk.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: walkstat ROOT DATABASE\n");
    return 2;
  }
  size_t files = 0;
  double times = 0;
  pysource::bench::WalkPythonFiles(argv[1],
                                   [&](const std::string& path, const struct stat& status) {
                                     files += path.empty() ? 0 : 1;
                                     times += static_cast<double>(status.st_mtim.tv_sec);
                                   });
  sqlite3* db = nullptr;
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_open(argv[2], &db) != SQLITE_OK ||
      sqlite3_prepare_v2(db, "SELECT id, name, disk_time, scans_done FROM files", -1, &statement,
                         nullptr) != SQLITE_OK) {
    std::fprintf(stderr, "walkstat: %s: %s\n", argv[2], sqlite3_errmsg(db));
    return 1;
  }
  size_t rows = 0;
  while (sqlite3_step(statement) == SQLITE_ROW) {
    ++rows;
    times -= sqlite3_column_double(statement, 2);
  }
  sqlite3_finalize(statement);
  sqlite3_close(db);
  std::printf("%zu files, %zu rows (%.0f)\n", files, rows, times);
  return rows == 0 ? 1 : 0;
}
