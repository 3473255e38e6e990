// The table of files: which number each file has, and what is stored of it besides its rows.
//
// Numbers never change, and a row is never deleted, so what was looked up once holds as long as the
// database is the same file, whatever other processes do. What a transaction enters is kept or
// forgotten with it: Keep() or Undo(), once it has ended.
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

namespace pysource::standalone::sqlitedb {

struct CFileRow {
  int64_t id = 0;
  bool known = false;  // false: there is no such row, and `id` is where it belongs
  std::optional<DiskTime> disk_time;
  std::optional<Text> scans_done;
  int64_t place = 0;  // where its records lie; 0: it has none
};

class CFileTable {
 public:
  CFileTable(CSqliteConnection& connection, const CFileNames& names, CLocationCache& loc_cache)
      : _fConnection(connection), _fNames(names), _fLocCache(loc_cache) {}

  // The row of the file, or where it belongs.
  CFileRow Find(Loc loc);
  // Calls found(index into locs, row) for those of the files that the database knows; the rows
  // without their places. One statement for all of them.
  void FindEach(const std::vector<Loc>& locs,
                const std::function<void(size_t, const CFileRow&)>& found);
  // Absent for a file that the database does not know.
  std::optional<int64_t> IdOf(Loc loc);
  // The same for many at once.
  std::vector<std::optional<int64_t>> IdsOf(const std::vector<Loc>& locs);
  // Absent for a number that names no file here.
  Loc LocOf(int64_t id);
  // The location of a name as stored; absent in a workspace that was not given.
  Loc LocOfName(TextView name) const;

  // ---- Within a transaction.

  // The number of a file that a row refers to; made if it is new.
  int64_t IdToStore(Loc loc);
  // Stores the row, which Find() gave for that file, with these values. Place 0 is none.
  void Put(Loc loc, const CFileRow& row, DiskTime disk_time, TextView scans_done, int64_t place);
  // Leaves the file its number, and nothing else.
  void Clear(int64_t id);

  void Keep() { _fNew.clear(); }
  void Undo();
  // Forgets all that was looked up.
  void Forget();

 private:
  void Note(Loc loc, int64_t id, bool is_new);

  CSqliteConnection& _fConnection;
  const CFileNames& _fNames;
  CLocationCache& _fLocCache;

  // The files met so far, both ways. The locations are the interned ones.
  std::unordered_map<Loc, int64_t> _fIds;
  std::unordered_map<int64_t, Loc> _fLocs;
  std::vector<Loc> _fNew;  // what the running transaction has added to them
};

}  // namespace pysource::standalone::sqlitedb
