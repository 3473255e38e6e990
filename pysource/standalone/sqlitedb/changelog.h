// The log of saves and clears in the database, by which processes tell each other what they did.
//
// What this process did itself is known by its numbers in the log, and is not told. Where the
// thread is lost (the log was cut meanwhile, the database is another file, a batch was undone), the
// next look says that everything may have changed.
#pragma once

#include <utility>
#include <vector>

#include "pysource/host/analysisdb.h"
#include "pysource/standalone/sqlitedb/connection.h"
#include "pysource/standalone/sqlitedb/filetable.h"

namespace pysource::standalone::sqlitedb {

// What the changes of other processes come to.
struct CFoundChanges {
  bool everything = false;
  CLocSet files;
  Text report;  // the same in words
};

class CChangeLog {
 public:
  // What is in the log now counts as seen. Throws CSqliteFailure.
  explicit CChangeLog(CSqliteConnection& connection);

  // What other processes did since the last look. Costs one small query when there is nothing new.
  CFoundChanges Find(CFileTable& files);
  // The next look says that everything may have changed.
  void LoseTrack() { _fEverythingChanged = true; }
  // Whether the entry of that number was found by a look, or made by this process.
  bool HasHeardOf(int64_t seq) const;

  // Enters a change of the file, within a transaction; Keep() or Undo() follows when it has ended.
  void Add(int64_t file);
  void Keep();
  void Undo() { _fUncommitted.clear(); }
  // What a batch has kept is undone after all.
  void ForgetOwn() { _fOwn.clear(); }

 private:
  int64_t DataVersion();
  int64_t Last();
  bool IsOwn(int64_t seq) const;

  CSqliteConnection& _fConnection;
  // The state of the database when it was last looked at.
  int64_t _fDataVersion = 0;
  int64_t _fSeen = 0;
  bool _fEverythingChanged = false;
  // Numbers after _fSeen of what this process did: runs from first to last.
  std::vector<std::pair<int64_t, int64_t>> _fOwn;
  std::vector<int64_t> _fUncommitted;  // those of the running transaction
};

}  // namespace pysource::standalone::sqlitedb
