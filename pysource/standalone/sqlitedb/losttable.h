// The table of what files have said of others, and is gone with the rows of those: what makes up
// for a race between processes that schema.h tells of.
#pragma once

#include <optional>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/standalone/sqlitedb/changelog.h"
#include "pysource/standalone/sqlitedb/connection.h"
#include "pysource/standalone/sqlitedb/filetable.h"

namespace pysource::standalone::sqlitedb {

class CLostTable {
 public:
  CLostTable(CSqliteConnection& connection, CChangeLog& changes)
      : _fConnection(connection), _fChanges(changes) {}

  // The files of which something is lost.
  std::vector<Loc> Sources(CFileTable& files);

  // ---- Within a transaction.

  // Notes the sources of the rows at the place of `target`, which are about to be dropped. To be
  // followed by CChangeLog::Add() of the same file, before that of any other: the note is under the
  // number that it gives.
  void Note(int64_t target, int64_t place);
  // Forgets that rows from `source` were lost, of `target` or of all: they are there again. But not
  // what another process has dropped since this one last looked: who has not heard of it can still
  // take rows for stored that went then.
  void Forget(int64_t source, std::optional<int64_t> target = std::nullopt);

 private:
  struct CRow {
    int64_t target = 0;
    int64_t seq = 0;
    int64_t sum = 0;
  };
  std::vector<CRow> RowsOf(int64_t source);

  CSqliteConnection& _fConnection;
  CChangeLog& _fChanges;
  CRowSum _fSum;
};

}  // namespace pysource::standalone::sqlitedb
