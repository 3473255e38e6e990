// The table of records: rows to records and back. Where a row lies, and what it leaves out because
// it is the same in nearly every row, stands in schema.h.
#pragma once

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

class CRecordTable {
 public:
  // Records that are read or put must be of files and scans of the same database. `shown` is how
  // messages name it.
  CRecordTable(CSqliteConnection& connection, CFileTable& files, CScanTable& scans,
               const std::string& shown)
      : _fConnection(connection), _fFiles(files), _fScans(scans), _fShown(shown) {}

  // ---- Reading. Nothing is read of a file that is stored with another disk time.

  // The scopes with rows of that scan, in order.
  std::vector<Text> ReadScopeNames(Loc loc, TextView scan, DiskTime disk_time);
  // The records of these scans and scopes, or of all scopes where kWildcardScope is among them, by
  // scope, scan, scanned file and scanned scope. A damaged row is left out and reported through
  // CriticalLog.
  std::vector<CDatabaseRecord> Read(Loc loc, const std::vector<Text>& scan_names,
                                    const std::vector<Text>& scope_names, DiskTime disk_time);
  // Calls take(index into locs, scope, equivalences) for rows of that scan, in the order of locs
  // and then of scopes. `statement` is kImports or kClasses.
  void ReadEquivs(EStatement statement, const std::vector<Loc>& locs, TextView scan,
                  const std::function<void(size_t, const Text&, const Bytes&)>& take);

  // ---- Writing, within a transaction.

  // A place for a file that has none: behind all others.
  int64_t NewPlace();
  // Stores the records of the file at its place. Of two with one key the later one stays.
  // `replacing`: there may be rows already.
  void Put(Loc for_loc, int64_t file, int64_t place, bool replacing,
           const std::vector<CDatabaseRecord>& records, DiskTime disk_time);
  // Drops all rows at the place.
  void Drop(int64_t place);
  // The transaction has ended without what was put: lets go of a message that was broken off.
  void Undo() { _fSerializer.Clear(); }

  // ---- Single rows, for who looks at all of them.

  // Fills the record from the row, whose first column is `first`. Gives what is wrong with the row,
  // or nothing; of a row with something wrong, what could be read stands in the record.
  Text ReadRow(CQuery& query, int first, Loc for_loc, DiskTime disk_time, CDatabaseRecord& record);
  // The scopes seen of a row. `loc_of` gives the location of a file's number, or none. Throws
  // CValueError where they are damaged.
  CScopesSeenPtr ReadScopesSeen(CQuery& query, int column, Loc for_loc, DiskTime disk_time,
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
  // The rows whose scopes have one hash.
  struct CStoredRows {
    std::vector<std::pair<int64_t, CStoredKey>> by_id;
    std::vector<std::unique_ptr<Text>> texts;  // what keys point to that were read
  };

  void ReadKeys(int64_t first, CStoredRows& rows);
  CStoredKey KeyOf(const CDatabaseRecord& record, Loc for_loc);
  void PutRows(std::span<const CRowToPut> rows, Loc for_loc, int64_t file, DiskTime disk_time);
  Bytes SeenOf(const CDatabaseRecord& record, Loc for_loc, int64_t file);

  CSqliteConnection& _fConnection;
  CFileTable& _fFiles;
  CScanTable& _fScans;
  const std::string& _fShown;
  scopeinfo::CScopeInfoSerializer _fSerializer;
};

}  // namespace pysource::standalone::sqlitedb
