// The table of files: which number each file has, and what is stored of it besides its rows.
//
// Numbers never change, and a row is never deleted, so what was looked up once holds as long as the
// database is the same file, whatever other processes do. What a transaction enters is kept or
// forgotten with it: Keep() or Undo(), once it has ended.
//
// A row whose checksum fails, and one that should be there and is not, is thrown as damage.
#pragma once

#include <functional>
#include <optional>
#include <unordered_map>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/text.h"
#include "pysource/standalone/sqlitedb/connection.h"
#include "pysource/standalone/sqlitedb/filenames.h"
#include "pysource/standalone/sqlitedb/rowsum.h"

namespace pysource::standalone::sqlitedb {

class CChangeLog;

// What is stored of a file besides its records.
struct CFileState {
  std::optional<DiskTime> disk_time;
  std::optional<Text> scans_done;
  int64_t place = 0;          // where its records lie; 0: it has none
  int64_t tally = 0;          // of the sums of its records
  int64_t foreign_tally = 0;  // of those that were made from other files

  bool operator==(const CFileState&) const = default;
};

struct CFileRow : CFileState {
  int64_t id = 0;
  bool known = false;  // false: there is no such row, and `id` is where it belongs
  Text name;           // of a known one
  int64_t sum = 0;
};

class CFileTable {
 public:
  // Rows that are put are counted in `changes`.
  CFileTable(CSqliteConnection& connection, CChangeLog& changes, const CFileNames& names,
             CLocationCache& loc_cache)
      : _fConnection(connection), _fChanges(changes), _fNames(names), _fLocCache(loc_cache) {}

  // The row whose columns begin with `first`, in the order of the schema.
  CFileRow RowAt(const CQuery& query, int first);

  // The row of the file, or where it belongs.
  CFileRow Find(Loc loc);
  // Calls found(index into locs, row) for those of the files that the database knows; One statement for all of them.
  void FindEach(const std::vector<Loc>& locs,
                const std::function<void(size_t, const CFileRow&)>& found);
  // Absent for a file that the database does not know.
  std::optional<int64_t> IdOf(Loc loc);
  // The same for many at once.
  std::vector<std::optional<int64_t>> IdsOf(const std::vector<Loc>& locs);
  // Some location, where it does not matter which.
  Loc AnyLoc() const { return _fLocCache.GetLocation("file:///"); }
  // The row, of which no more than name and sum is taken where the sum does not fit.
  CFileRow RowToRepair(int64_t id);
  // Whether there is a file of that number, even if its location is not known here.
  bool Has(int64_t id);
  // Absent for a number that names no file here.
  Loc LocOf(int64_t id);
  // The location of a name as stored; absent in a workspace that was not given.
  Loc LocOfName(TextView name) const;

  // ---- Within a transaction.

  // The number of a file that a row refers to; made if it is new.
  int64_t IdToStore(Loc loc);
  // Gives the file the number of its row, which Find() has found to be free, ahead of Put().
  void Reserve(Loc loc, const CFileRow& row) { Note(loc, row.id, true); }
  // Stores the row, which Find() gave for that file, with these values.
  void Put(Loc loc, const CFileRow& row, const CFileState& state);
  // The same of a row whose sum need not fit. Its name must.
  void PutRow(const CFileRow& row, TextView name, const CFileState& state);

  void Keep() { _fNew.clear(); }
  void Undo();
  // Forgets all that was looked up.
  void Forget();

 private:
  void Note(Loc loc, int64_t id, bool is_new);
  // That no row is missing. Costs a look at all of them, so it is done once: when a file is not
  // found, which then has to be scanned anyway.
  void CheckThatNoneIsMissing();
  int64_t SumOf(int64_t id, TextView name, const CFileState& state);

  CSqliteConnection& _fConnection;
  CChangeLog& _fChanges;
  const CFileNames& _fNames;
  CLocationCache& _fLocCache;

  // The files met so far, both ways. The locations are the interned ones.
  std::unordered_map<Loc, int64_t> _fIds;
  std::unordered_map<int64_t, Loc> _fLocs;
  std::vector<Loc> _fNew;  // what the running transaction has added to them
  bool _fNoneIsMissing = false;
  CRowSum _fSum;
};

}  // namespace pysource::standalone::sqlitedb
