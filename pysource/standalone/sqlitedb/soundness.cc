#include "pysource/standalone/sqlitedb/soundness.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "pysource/host/errors.h"
#include "pysource/host/repr.h"
#include "pysource/standalone/sqlitedb/schema.h"

namespace pysource::standalone::sqlitedb {
namespace {

// What is known of a file while its records are read.
struct CCheckedFile {
  Text name;
  int64_t place = 0;
  CTallies stored;
  CTallies found;
  bool is_row_bad = false;
  bool has_bad_records = false;
};

class CCheck {
 public:
  CCheck(CSession& session, const std::string& shown) : _fSession(session), _fShown(shown) {}

  CSoundness Run() {
    try {
      CheckPages();
      if (!_fResult.is_lost) {
        CheckSmallTables();
        CheckFiles();
        CheckRecords();
        CheckTallies();
      }
    } catch (const CSqliteFailure& failure) {
      if (!failure.IsDamage()) {
        throw;
      }
      Lose(failure.what());
    }
    return std::move(_fResult);
  }

 private:
  void Tell(const Text& what) { _fResult.faults.push_back(_fShown + ": " + what); }
  void Lose(const Text& what) {
    Tell(what);
    _fResult.is_lost = true;
  }
  void Drop(int64_t file, const Text& what) {
    if (_fResult.to_drop.insert(file).second) {
      Tell("the file " + Repr(_fFiles.at(file).name) + ": " + what + "; it is to be scanned again");
    }
  }

  void CheckPages() {
    const auto statement = _fSession.connection->Prepare("PRAGMA integrity_check(1)");
    for (CQuery query(statement.get()); query.Step();) {
      if (query.ViewAt(0) != "ok") {
        Lose(Text(query.ViewAt(0)));
      }
    }
  }

  // `columns` are summed up, the sum follows them.
  void CheckSums(const char* sql, int columns, const char* what) {
    const auto statement = _fSession.connection->Prepare(sql);
    for (CQuery query(statement.get()); query.Step();) {
      if (_fSum.Begin().Columns(query, 0, columns - 1).Sum() != query.IntAt(columns)) {
        return Lose(what);
      }
    }
  }

  void CheckSmallTables() {
    CheckSums("SELECT id, name, sum FROM scans", 2, "the name of a scan is damaged");
    CheckSums("SELECT seq, file, tally, sum FROM changes", 3, "a row of the log is damaged");
    CheckSums("SELECT source, target, seq, sum FROM lost", 3, "a row of the lost ones is damaged");
    const auto statement = _fSession.connection->Prepare("SELECT id FROM scans");
    for (CQuery query(statement.get()); query.Step();) {
      _fScans.insert(query.IntAt(0));
    }
  }

  void CheckFiles() {
    const auto statement = _fSession.connection->Prepare(
        "SELECT id, name, disk_time, scans_done, place, tally, foreign_tally, sum FROM files");
    for (CQuery query(statement.get()); query.Step();) {
      CCheckedFile& file = _fFiles[query.IntAt(0)];
      file.name = query.ViewAt(1);
      file.is_row_bad = _fSum.Begin().Columns(query, 0, 6).Sum() != query.IntAt(7);
      if (!file.is_row_bad) {
        file.place = query.IntAt(4);
        file.stored = {query.IntAt(5), query.IntAt(6)};
      } else if (FirstFileId(file.name) == query.IntAt(0)) {
        _fHasBadFiles = true;
        Drop(query.IntAt(0), "its row is damaged");
      } else {
        return Lose("the name of a file is damaged");
      }
      if (file.place != 0 && !_fByPlace.emplace(file.place, &file).second) {
        return Lose("two files have one place");
      }
    }
  }

  void CheckRecords() {
    const auto statement = _fSession.connection->Prepare(
        "SELECT id, sum, scope, scan, scanned_file, scanned_scope, seen, classes, imports, data "
        "FROM records ORDER BY id");
    std::unordered_map<const CCheckedFile*, int64_t> ids;
    for (const auto& [id, file] : _fFiles) {
      ids[&file] = id;
    }
    for (CQuery query(statement.get()); query.Step() && !_fResult.is_lost;) {
      const int64_t place = query.IntAt(0) & ~(kPlaceSpan - 1);
      const auto owner = _fByPlace.find(place);
      if (owner == _fByPlace.end()) {
        if (!_fHasBadFiles) {
          return Lose("records belong to no file");
        }
        _fResult.orphans.insert(place);
        continue;
      }
      CCheckedFile& file = *owner->second;
      file.found.Count(query.IntAt(1), !query.IsNull(4));
      if (const Text fault = FaultOf(query, ids.at(&file)); !fault.empty()) {
        file.has_bad_records = true;
        Drop(ids.at(&file), FormatPercent("scope %r: %s", {Text(query.ViewAt(2)), fault}));
      }
    }
  }

  Text FaultOf(const CQuery& query, int64_t file) {
    if (!_fSession.records.IsSoundButForData(query, file) || !CRecordTable::IsDataSound(query)) {
      return "its checksum does not fit";
    }
    if (!query.IsNull(3) && !_fScans.contains(query.IntAt(3))) {
      return "its scan is not known";
    }
    if (!query.IsNull(4) && query.IntAt(4) != kAbsentFile && !_fFiles.contains(query.IntAt(4))) {
      return "its scanned file is not known";
    }
    try {
      (void)_fSession.records.ReadScopesSeen(query, 6, Loc(), 0, [this](int64_t id) {
        return _fFiles.contains(id) ? _fSession.files.AnyLoc() : Loc();
      });
    } catch (const CValueError& error) {
      return std::string("its scopes seen are damaged: ") + error.what();
    }
    return {};
  }

  void CheckTallies() {
    for (const auto& [id, file] : _fFiles) {
      if (file.is_row_bad || file.has_bad_records) {
        continue;  // is dropped; the index `ties`, which agrees, says who has told of it
      }
      if (file.stored.foreign != file.found.foreign) {
        return Lose("records that were made for the file " + Repr(file.name) + " are missing");
      }
      if (file.stored.all != file.found.all) {
        Drop(id, "records are missing");
      }
    }
    int64_t tally = 0;
    const auto query =
        _fSession.connection->Prepare("SELECT sum FROM files UNION ALL SELECT sum FROM lost");
    for (CQuery rows(query.get()); rows.Step();) {
      tally = AddSums(tally, rows.IntAt(0));
    }
    const int64_t told = _fSession.connection->IntOf(
        "SELECT coalesce((SELECT tally FROM changes ORDER BY seq DESC LIMIT 1), 0)");
    if (tally != told && !_fHasBadFiles) {
      Lose("the row of a file is missing");
    }
  }

  CSession& _fSession;
  const std::string& _fShown;
  CSoundness _fResult;
  CRowSum _fSum;
  std::set<int64_t> _fScans;
  std::unordered_map<int64_t, CCheckedFile> _fFiles;  // references to its values stay good
  std::unordered_map<int64_t, CCheckedFile*> _fByPlace;
  bool _fHasBadFiles = false;
};

}  // namespace

CSoundness CheckSoundness(CSession& session, const std::string& shown) {
  return CCheck(session, shown).Run();
}

void DropUnsound(CSession& session, const CSoundness& soundness) {
  session.Forget();
  for (const int64_t id : soundness.to_drop) {
    const CFileRow row = session.files.RowToRepair(id);
    // The place of a row that is damaged is not known: it is one of those that have no file.
    if (row.place != 0) {
      session.lost.Note(id, row.place);
      session.records.Drop(row.place);
    } else {
      for (const int64_t place : soundness.orphans) {
        session.lost.Note(id, place);
      }
    }
    session.files.PutRow(row, row.name, CFileState());
  }
  for (const int64_t place : soundness.orphans) {
    session.records.Drop(place);
  }
  session.changes.Recount();
  for (const int64_t id : soundness.to_drop) {
    session.changes.Add(id);
  }
}

}  // namespace pysource::standalone::sqlitedb
