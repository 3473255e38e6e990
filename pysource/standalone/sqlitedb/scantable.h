// The table of scans: their names as small numbers. There are two or three, so a list holds all of
// them. One that is not in it may be new, from another process, and is looked for again.
#pragma once

#include <optional>
#include <utility>
#include <vector>

#include "pysource/host/text.h"
#include "pysource/standalone/sqlitedb/connection.h"
#include "pysource/standalone/sqlitedb/rowsum.h"

namespace pysource::standalone::sqlitedb {

class CScanTable {
 public:
  explicit CScanTable(CSqliteConnection& connection) : _fConnection(connection) {}

  // Absent for a scan of which nothing was ever stored.
  std::optional<int64_t> IdOf(TextView name);
  // Null for a number that names no scan. Good until the next call of any of these.
  const Text* NameOf(int64_t id);
  // The number of a scan that a row refers to; made if it is new. Only within a transaction, which
  // is to be followed by Keep() or Undo().
  int64_t IdToStore(TextView name);

  void Keep() { _fHasNew = false; }
  void Undo();
  void Forget() { _fScans.clear(); }

 private:
  template <class IsWanted>
  const std::pair<int64_t, Text>* Find(IsWanted is_wanted);
  void Load();

  CSqliteConnection& _fConnection;
  std::vector<std::pair<int64_t, Text>> _fScans;
  CRowSum _fSum;
  bool _fHasNew = false;  // the running transaction has added to them
};

}  // namespace pysource::standalone::sqlitedb
