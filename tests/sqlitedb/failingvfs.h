// A file system for SQLite that fails when it is told to: it passes everything on to the real one,
// counts what writes, and makes the n-th of these fail, alone or with all that follow (as a disk
// that is full goes on being full).
#pragma once

#include <sqlite3.h>

namespace pysource::standalone {

class CFailingVfs {
 public:
  // From now on the default of all connections, until this object ends. Without shared memory, as
  // on some network file systems, there is no WAL.
  explicit CFailingVfs(bool shared_memory = true);
  ~CFailingVfs();
  CFailingVfs(const CFailingVfs&) = delete;
  CFailingVfs& operator=(const CFailingVfs&) = delete;

  // The n-th writing operation from here on gives `code`; 0 for none.
  static void FailAt(int n, int code, bool all_later);
  // Whether one has failed since.
  static bool HasFailed();

 private:
  sqlite3_vfs* _fReal;
  sqlite3_vfs _fVfs;
};

}  // namespace pysource::standalone
