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
#include "pysource/standalone/sqlitedb/rowsum.h"

namespace pysource::standalone::sqlitedb {

class CFileTable;

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

  // The number that the next change gets. Within a transaction.
  int64_t Next() { return Last().seq + 1; }
  // Enters a change of the file, within a transaction; Keep() or Undo() follows when it has ended.
  // To be called last of all that is changed with it: it carries the tally of that.
  void Add(int64_t file);
  void Keep();
  void Undo() {
    _fUncommitted.clear();
    _fTally = 0;
  }
  // A row of `files` or `lost` was put, or taken away, in the place of one of that sum; 0 for none.
  void CountRow(int64_t new_sum, int64_t old_sum) {
    _fTally = AddSums(_fTally, TakeSum(new_sum, old_sum));
  }
  // What a batch has kept is undone after all.
  void ForgetOwn() { _fOwn.clear(); }
  // Counts all rows anew, where what was counted is wrong.
  void Recount();
  // What was counted since the last Add().
  int64_t Uncounted() const { return _fTally; }

 private:
  int64_t DataVersion();
  struct CLast {
    int64_t seq = 0;  // 0 when the log is empty
    int64_t tally = 0;
  };
  CLast Last();
  bool IsOwn(int64_t seq) const;

  CSqliteConnection& _fConnection;
  // The state of the database when it was last looked at.
  int64_t _fDataVersion = 0;
  int64_t _fSeen = 0;
  bool _fEverythingChanged = false;
  // Numbers after _fSeen of what this process did: runs from first to last.
  std::vector<std::pair<int64_t, int64_t>> _fOwn;
  std::vector<int64_t> _fUncommitted;  // those of the running transaction
  int64_t _fTally = 0;                 // what was counted since the last Add()
  CRowSum _fSum;
};

}  // namespace pysource::standalone::sqlitedb
