// The table of records: rows to records and back. Where a row lies, and what it leaves out because
// it is the same in nearly every row, stands in schema.h.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "pysource/host/analysisdb.h"
#include "pysource/host/location.h"
#include "pysource/host/text.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"
#include "pysource/standalone/sqlitedb/connection.h"
#include "pysource/standalone/sqlitedb/filetable.h"
#include "pysource/standalone/sqlitedb/scantable.h"

namespace pysource::standalone::sqlitedb {

// Columns that are asked for by themselves, by their place in a row.
enum class EEquivs { kClasses = 7, kImports = 8 };

// The sums of the records of a file, added up.
struct CTallies {
  int64_t all = 0;
  int64_t foreign = 0;
  void Count(int64_t sum, bool is_foreign) {
    all = AddSums(all, sum);
    foreign = is_foreign ? AddSums(foreign, sum) : foreign;
  }
  void Uncount(int64_t sum, bool is_foreign) {
    all = TakeSum(all, sum);
    foreign = is_foreign ? TakeSum(foreign, sum) : foreign;
  }
};

// What is wrong with a row; nothing where `text` is empty.
struct CRowFault {
  Text text;
  // No save has written it so. Otherwise it names a file of a workspace that was not given.
  bool is_damaged = true;
};

class CRecordTable {
 public:
  // Records that are read or put must be of files and scans of the same database. `shown` is how
  // messages name it.
  CRecordTable(CSqliteConnection& connection, CFileTable& files, CScanTable& scans,
               const std::string& shown)
      : _fConnection(connection), _fFiles(files), _fScans(scans), _fShown(shown) {}

  // ---- Reading. Nothing is read of a file that is stored with another disk time. A damaged row,
  // and a missing one where all of a file are read, is thrown as damage.

  // The scopes with rows of that scan, in order.
  std::vector<Text> ReadScopeNames(Loc loc, TextView scan, DiskTime disk_time);
  // The records of these scans and scopes, or of all scopes where kWildcardScope is among them, by
  // scope, scan, scanned file and scanned scope. A row that names a file of a workspace that was
  // not given is left out and reported through CriticalLog.
  std::vector<CDatabaseRecord> Read(Loc loc, const std::vector<Text>& scan_names,
                                    const std::vector<Text>& scope_names, DiskTime disk_time);
  // Calls take(index into locs, scope, equivalences) for rows of that scan, in the order of locs
  // and then of scopes.
  void ReadEquivs(EEquivs equivs, const std::vector<Loc>& locs, TextView scan,
                  const std::function<void(size_t, const Text&, const Bytes&)>& take);

  // ---- Writing, within a transaction.

  // A place for a file that has none: behind all others.
  int64_t NewPlace();
  // Stores the records of the file at its place, and counts them in `tallies`. Of two with one key
  // the later one stays. `replacing`: there may be rows already.
  void Put(Loc for_loc, int64_t file, int64_t place, bool replacing,
           const std::vector<CDatabaseRecord>& records, DiskTime disk_time, CTallies& tallies);
  // Drops all rows at the place.
  void Drop(int64_t place);
  // The transaction has ended without what was put: lets go of a message that was broken off.
  void Undo() { _fSerializer.Clear(); }

  // ---- Single rows, for who looks at all of them.

  // Fills the record from the row, whose columns are the first ones of the query, in the order of
  // the schema. Gives what is wrong with the row; what could be read of it stands in the record.
  CRowFault ReadRow(CQuery& query, int64_t file, Loc for_loc, DiskTime disk_time,
                    CDatabaseRecord& record);
  // Whether the checksum fits all but the data, and the data.
  bool IsSoundButForData(const CQuery& query, int64_t file);
  static bool IsDataSound(const CQuery& query);
  // The scopes seen of a row. `loc_of` gives the location of a file's number, or none. Throws
  // CValueError where they are damaged.
  CScopesSeenPtr ReadScopesSeen(const CQuery& query, int column, Loc for_loc, DiskTime disk_time,
                                const std::function<Loc(int64_t)>& loc_of);

 private:
  // The key of a row within its file, as it is stored.
  struct CStoredKey {
    TextView scope;
    std::optional<int64_t> scan;
    std::optional<int64_t> scanned_file;  // absent: the file itself
    bool scanned_scope_absent = false;
    std::optional<TextView> scanned_scope;  // absent: the scope itself, or scanned_scope_absent

    bool operator==(const CStoredKey&) const = default;
  };
  struct CRowToPut {
    int64_t id = 0;
    CStoredKey key;
    const CDatabaseRecord* record = nullptr;
  };
  struct CStoredRow {
    int64_t id = 0;
    CStoredKey key;
    int64_t sum = 0;
    size_t to_put = SIZE_MAX;  // which of the rows to put it is; SIZE_MAX: none yet
  };
  // The rows whose scopes have one hash.
  struct CStoredRows {
    std::vector<CStoredRow> by_id;
    std::vector<std::unique_ptr<Text>> texts;  // what keys point to that were read
  };

  // Behind the columns of the record.
  static constexpr int kFileColumn = 10;

  struct CWanted {
    std::vector<int64_t> scans;
    std::vector<TextView> scopes;  // sorted
    bool all = false;              // of the scopes
  };
  void ReadFrom(CQuery& query, const CWanted& wanted, Loc loc, DiskTime disk_time,
                std::vector<CDatabaseRecord>& records);
  void ReadKeys(int64_t first, CStoredRows& rows);
  CStoredKey KeyOf(const CDatabaseRecord& record, Loc for_loc);
  void PutRows(std::span<const CRowToPut> rows, Loc for_loc, int64_t file, DiskTime disk_time,
               CTallies& tallies);
  // What the query says of the file of its row.
  CFileRow FileOf(const CQuery& query) { return _fFiles.RowAt(query, kFileColumn); }
  static void CheckTallies(const CFileRow& file, const CTallies& tallies);
  Bytes SeenOf(const CDatabaseRecord& record, Loc for_loc, int64_t file);

  CSqliteConnection& _fConnection;
  CFileTable& _fFiles;
  CScanTable& _fScans;
  const std::string& _fShown;
  scopeinfo::CScopeInfoSerializer _fSerializer;
  CRowSum _fSum;
};

}  // namespace pysource::standalone::sqlitedb
