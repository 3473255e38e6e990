// The table of contents: for each file that was read, the mark that says with which stamp it had
// which disk time (files/disktimes.h). Nothing rests on a row: one that is lost or damaged makes a
// file be read once more. So these rows are no part of a save, and are logged as no change.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "pysource/standalone/files/disktimes.h"
#include "pysource/standalone/sqlitedb/connection.h"

namespace pysource::standalone::sqlitedb {

class CContentTable {
 public:
  explicit CContentTable(CSqliteConnection& connection) : _fConnection(connection) {}

  // `file` is the number of a file. Absent when there is no row.
  std::optional<CContentMark> Find(int64_t file);
  // All of them, in the order of their numbers.
  void Visit(const std::function<void(int64_t file, const CContentMark&)>& visit);
  // The mark of a row whose seal is in that column, and whose disk time in the next.
  static CContentMark MarkAt(const CQuery& query, int column);
  // Within a transaction.
  void Put(int64_t file, const CContentMark& mark);

 private:
  CSqliteConnection& _fConnection;
};

}  // namespace pysource::standalone::sqlitedb
