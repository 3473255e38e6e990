#include "pysource/standalone/sqlitedb/sqliteanalysisdb.h"

#include <algorithm>
#include <bit>
#include <filesystem>
#include <numeric>
#include <system_error>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/host/logger.h"
#include "pysource/host/repr.h"
#include "pysource/host/symbolinfo.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"
#include "pysource/standalone/sqlitedb/connection.h"
#include "pysource/standalone/sqlitedb/filenames.h"
#include "pysource/standalone/sqlitedb/opening.h"
#include "pysource/standalone/sqlitedb/schema.h"

namespace pysource::standalone {

using sqlitedb::COpenDatabase;
using sqlitedb::CQuery;
using sqlitedb::CSqliteConnection;
using sqlitedb::CSqliteFailure;
using sqlitedb::CWriteTransaction;
using sqlitedb::EStatement;

namespace {

// Own saves that are not in one run with others, before all is told as changed instead: 64 KB.
constexpr size_t kMostOwnRuns = 4096;

// What scanned_file holds for an absent location.
constexpr int64_t kAbsentFile = 0;

std::string AbsolutePath(const std::string& path) {
  if (path.empty()) {
    throw CValueError("the path of the database is empty");
  }
  std::error_code error;
  const std::filesystem::path absolute = std::filesystem::absolute(path, error);
  if (error) {
    throw CValueError(path + ": " + error.message());
  }
  return absolute.string();
}

// "[1,2,3]", which json_each makes rows of: one statement for any number of values.
template <class Range>
Text JsonArray(const Range& values) {
  Text json = "[";
  for (const int64_t value : values) {
    if (json.size() > 1) {
      json += ',';
    }
    json += std::to_string(value);
  }
  return json += ']';
}

bool SameBits(DiskTime a, DiskTime b) {
  return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b);
}

// By scope, scan, scanned file and scanned scope; absent comes first.
bool InOrder(const CDatabaseRecord& a, const CDatabaseRecord& b) {
  if (const int order = a.for_scope.compare(b.for_scope); order != 0) {
    return order < 0;
  }
  if (a.scan_name != b.scan_name) {
    return a.scan_name < b.scan_name;
  }
  if (!(a.scanned_loc == b.scanned_loc)) {
    return !a.scanned_loc || (b.scanned_loc && a.scanned_loc < b.scanned_loc);
  }
  return a.scanned_scope < b.scanned_scope;
}

// Sorts by moving each record once: they are big.
std::vector<CDatabaseRecord> Sorted(std::vector<CDatabaseRecord> records) {
  if (std::is_sorted(records.begin(), records.end(), InOrder)) {
    return records;
  }
  std::vector<size_t> order(records.size());
  std::iota(order.begin(), order.end(), size_t{0});
  std::sort(order.begin(), order.end(),
            [&records](size_t a, size_t b) { return InOrder(records[a], records[b]); });
  std::vector<CDatabaseRecord> result;
  result.reserve(records.size());
  for (const size_t index : order) {
    result.push_back(std::move(records[index]));
  }
  return result;
}

// A row of `files`.
struct CFileRow {
  int64_t id = 0;
  bool known = false;  // false: there is no such row, and `id` is where it belongs
  std::optional<DiskTime> disk_time;
  std::optional<Text> scans_done;
  int64_t place = 0;  // 0: it has no rows
};

// The key of a row within its file, as it is stored.
struct CStoredKey {
  TextView scope;
  std::optional<int64_t> scan;
  std::optional<int64_t> scanned_file;  // absent: the file itself
  bool scanned_scope_absent = false;
  std::optional<TextView> scanned_scope;  // absent: the scope itself, or scanned_scope_absent

  bool operator==(const CStoredKey&) const = default;
};

// The file is damaged; the text says so.
class CDamaged : public CValueError {
 public:
  using CValueError::CValueError;
};

// What the changes of other processes come to.
struct CFoundChanges {
  bool everything = false;
  CLocSet files;
  Text report;
};

}  // namespace

class CSqliteAnalysisDb::CImpl {
 public:
  CImpl(CSqliteDbOptions options, CLocationCache& loc_cache)
      : _fOptions(std::move(options)),
        _fPath(AbsolutePath(_fOptions.path)),
        _fLocCache(loc_cache),
        _fNames(_fOptions.workspace_root) {
    Connect();
  }

  void Close() {
    _fClosed = true;
    _fConnection.reset();
    Forget();
  }

  // ---- The shapes of an operation.

  // Runs a read. Damage is repaired by beginning anew, and the read then finds nothing.
  template <class Result, class Read>
  Result Reading(const char* what, Read read) {
    try {
      return Looking<Result>(what, read);
    } catch (const CDamaged& damaged) {
      BeginAnew(damaged.what());
      return Result();
    }
  }

  // Runs a read that repairs nothing: damage is an error like any other.
  template <class Result, class Read>
  Result Looking(const char* what, Read read) {
    if (_fClosed) {
      return Result();
    }
    if (!_fConnection) {
      Reconnect();
    }
    _fConnection->LimitWaiting(_fOptions.lock_wait_ms);
    try {
      return read();
    } catch (const CSqliteFailure& failure) {
      const std::string text = Shown() + ": " + what + ": " + failure.what();
      if (failure.IsDamage()) {
        throw CDamaged(text);
      }
      throw CValueError(text);
    }
  }

  // Runs a change in a transaction; false, and the reason in _fLastError, when it was not made.
  template <class Change>
  bool Changing(const char* what, Change change) {
    _fLastError.clear();
    if (_fClosed) {
      _fLastError = Shown() + ": " + what + ": the database is closed";
      return false;
    }
    CUncommitted uncommitted(*this);
    try {
      if (IsInBatch()) {
        _fOwnSaves.clear();
        _fConnection->Execute("SAVEPOINT one");
        try {
          change();
        } catch (...) {
          if (IsInBatch()) {
            _fConnection->Execute("ROLLBACK TO one");
            _fConnection->Execute("RELEASE one");
          }
          throw;
        }
        _fConnection->Execute("RELEASE one");
        uncommitted.Keep();
        for (const int64_t seq : _fOwnSaves) {
          NoteOwnChange(seq);
        }
        return true;
      }
      if (!_fConnection || Replaced()) {
        Reconnect();
      }
      if (_fConnection->ReadOnly()) {
        throw CSqliteFailure(SQLITE_READONLY, "the database can only be read");
      }
      _fConnection->LimitWaiting(_fOptions.lock_wait_ms);
      _fOwnSaves.clear();
      CWriteTransaction transaction(*_fConnection);
      change();
      transaction.Commit();
      uncommitted.Keep();
      for (const int64_t seq : _fOwnSaves) {
        NoteOwnChange(seq);
      }
      return true;
    } catch (const CSqliteFailure& failure) {
      _fLastError = Shown() + ": " + what + ": " + failure.what();
      if (failure.IsDamage()) {
        try {
          BeginAnew(_fLastError);
        } catch (const CError& error) {
          _fLastError = error.what();
        }
      }
    } catch (const CValueError& error) {
      _fLastError = error.what();
    }
    return false;
  }

  bool SaveFile(Loc loc, const std::vector<CDatabaseRecord>& records, TextView scans_done,
                DiskTime disk_mtime) {
    const bool saved = Changing("saving", [&] { Save(loc, records, scans_done, disk_mtime); });
    NoteOutcome(loc, saved);
    return saved;
  }

  bool ClearFiles(const std::vector<Loc>& loc_list) {
    const bool cleared = Changing("clearing", [&] { Clear(loc_list); });
    for (const Loc loc : loc_list) {
      NoteOutcome(loc, cleared);
    }
    return cleared;
  }

  const std::string& RefusalOf(Loc loc) const {
    static const std::string none;
    const auto refusal = _fRefusals.find(loc);
    return refusal == _fRefusals.end() ? none : refusal->second;
  }

  // ---- The service.

  std::vector<Text> ReadScopeNames(Loc loc, TextView scan, DiskTime disk_mtime) {
    std::vector<Text> names;
    const auto file = FileId(loc);
    const auto scan_id = ScanId(scan);
    if (!file || !scan_id) {
      return names;
    }
    CQuery query = _fConnection->Use(EStatement::kScopeNames);
    query.Int(*file).Double(disk_mtime).Int(*scan_id);
    while (query.Step()) {
      names.emplace_back(query.ViewAt(0));
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    return names;
  }

  std::vector<CDatabaseRecord> ReadScopeDataRecords(Loc loc, const std::vector<Text>& scan_names,
                                                    const std::vector<Text>& scope_names,
                                                    DiskTime disk_mtime) {
    std::vector<CDatabaseRecord> records;
    const auto file = FileId(loc);
    if (!file) {
      return records;
    }
    std::vector<int64_t> scans;
    for (const Text& name : scan_names) {
      if (const auto scan = ScanId(name)) {
        scans.push_back(*scan);
      }
    }
    std::vector<TextView> scopes(scope_names.begin(), scope_names.end());
    std::sort(scopes.begin(), scopes.end());
    const bool all = std::binary_search(scopes.begin(), scopes.end(), kWildcardScope);
    if (scans.empty() || scopes.empty()) {
      return records;
    }

    const auto read = [&](CQuery& query) {
      while (query.Step()) {
        const auto scan = query.OptionalIntAt(1);
        if (scan && std::find(scans.begin(), scans.end(), *scan) != scans.end() &&
            (all || std::binary_search(scopes.begin(), scopes.end(), query.ViewAt(0)))) {
          CDatabaseRecord record;
          if (const Text error = ReadRow(query, 0, loc, disk_mtime, record); error.empty()) {
            records.push_back(std::move(record));
          } else {
            ReportDamagedRow(loc, record.for_scope, error);
          }
        }
      }
    };
    if (all) {
      CQuery query = _fConnection->Use(EStatement::kRecordsAll);
      read(query.Int(*file).Double(disk_mtime));
    } else if (scopes.size() == 1) {
      CQuery query = _fConnection->Use(EStatement::kRecordsOne);
      read(query.Int(*file).Double(disk_mtime).Int(sqlitedb::ScopeOffset(scopes[0])));
    } else {
      // Two names of one hash are one range.
      std::vector<int64_t> offsets;
      offsets.reserve(scopes.size());
      for (const TextView scope : scopes) {
        offsets.push_back(sqlitedb::ScopeOffset(scope));
      }
      std::sort(offsets.begin(), offsets.end());
      offsets.erase(std::unique(offsets.begin(), offsets.end()), offsets.end());
      const Text json = JsonArray(offsets);
      CQuery query = _fConnection->Use(EStatement::kRecordsMany);
      read(query.Int(*file).Double(disk_mtime).TextOf(json));
    }
    return Sorted(std::move(records));
  }

  CScansDoneDict GetScansDone(const CLocMtimeDict& loc_mtime_dict) {
    std::vector<Loc> locs;
    locs.reserve(loc_mtime_dict.size());
    for (const auto& [loc, mtime] : loc_mtime_dict) {
      locs.push_back(loc);
    }
    std::vector<std::optional<Text>> found(locs.size());
    LookUpFiles(locs, [&](size_t index, const CFileRow& row) {
      if (row.disk_time && *row.disk_time == *loc_mtime_dict.Find(locs[index])) {
        found[index] = row.scans_done.value_or(Text());
      }
    });
    CScansDoneDict result;
    for (size_t i = 0; i < locs.size(); ++i) {
      if (found[i]) {
        result.Set(locs[i], std::move(*found[i]));
      }
    }
    return result;
  }

  void Save(Loc loc, const std::vector<CDatabaseRecord>& records, TextView scans_done,
            DiskTime disk_mtime) {
    CFileRow file = FindFile(loc);
    const bool same_time = file.disk_time && *file.disk_time == disk_mtime;
    if (!same_time && file.place != 0) {
      DropRecords(file.id, file.place);
    }
    if (!scans_done.empty() && (!same_time || file.scans_done.value_or("").empty())) {
      ForgetLost(file.id);
    }
    // Without rows, the place is free: the next file may get it.
    int64_t place = records.empty() && !same_time ? 0 : file.place;
    if (!records.empty() && place == 0) {
      place = NewPlace();
    }
    const bool file_changed = !same_time || file.scans_done != scans_done || file.place != place;
    if (!file_changed && records.empty()) {
      return;
    }
    if (file_changed) {
      CQuery query = _fConnection->Use(file.known ? EStatement::kSetFile : EStatement::kAddFile);
      query.Int(file.id);
      Text name;
      if (!file.known) {
        name = _fNames.NameOf(*loc);
        query.TextOf(name);
      }
      query.Double(disk_mtime).TextOf(scans_done);
      (place == 0 ? query.Null() : query.Int(place)).Run();
      NoteFile(loc, file.id, true);
    }
    Loc source;
    for (const CDatabaseRecord& record : records) {
      Assert(record.for_loc == loc);
      if (record.scanned_loc && record.scanned_loc != loc && record.scanned_loc != source) {
        source = record.scanned_loc;
        ForgetLost(FileIdToStore(source), file.id);
      }
    }
    PutRecords(loc, file.id, place, same_time && file.place != 0, records, disk_mtime);
    LogChange(file.id);
  }

  void Clear(const std::vector<Loc>& loc_list) {
    for (const Loc loc : loc_list) {
      const CFileRow file = FindFile(loc);
      if (!file.known || (!file.disk_time && file.place == 0)) {
        continue;
      }
      if (file.place != 0) {
        DropRecords(file.id, file.place);
      }
      ForgetLost(file.id);
      _fConnection->Use(EStatement::kSetFile).Int(file.id).Null().Null().Null().Run();
      LogChange(file.id);
    }
  }

  // Calls take(index into locs, scope, equivalences), in the order of locs and then of scopes.
  template <class Take>
  void GetEquivs(EStatement statement, const std::vector<Loc>& locs, TextView scan, Take take) {
    const auto scan_id = ScanId(scan);
    if (!scan_id) {
      return;
    }
    std::vector<std::optional<int64_t>> ids(locs.size());
    std::vector<Loc> unknown;
    std::vector<size_t> unknown_index;
    for (size_t i = 0; i < locs.size(); ++i) {
      if (const auto known = _fIds.find(locs[i]); known != _fIds.end()) {
        ids[i] = known->second;
      } else {
        unknown.push_back(locs[i]);
        unknown_index.push_back(i);
      }
    }
    LookUpFiles(unknown,
                [&](size_t index, const CFileRow& row) { ids[unknown_index[index]] = row.id; });
    std::vector<int64_t> asked;
    std::vector<size_t> asked_index;
    for (size_t i = 0; i < locs.size(); ++i) {
      if (ids[i]) {
        asked.push_back(*ids[i]);
        asked_index.push_back(i);
      }
    }
    std::vector<std::tuple<size_t, Text, Bytes>> found;
    const Text json = JsonArray(asked);
    CQuery query = _fConnection->Use(statement);
    query.TextOf(json).Int(*scan_id);
    while (query.Step()) {
      found.emplace_back(asked_index[static_cast<size_t>(query.IntAt(0))], query.ViewAt(1),
                         query.ViewAt(2));
    }
    std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
      return std::tie(std::get<0>(a), std::get<1>(a)) < std::tie(std::get<0>(b), std::get<1>(b));
    });
    for (const auto& [index, scope, equivs] : found) {
      take(index, scope, equivs);
    }
  }

  CFoundChanges FindChanges() {
    CFoundChanges found;
    if (!_fConnection || Replaced()) {
      Reconnect();
    }
    _fConnection->LimitWaiting(_fOptions.lock_wait_ms);
    // Asked before the log is read: what comes in between is found the next time.
    const int64_t data_version = DataVersion();
    if (!_fEverythingChanged && data_version == _fDataVersion) {
      found.report = "no changes";
      return found;
    }
    const int64_t last = LastChange();
    if (!_fEverythingChanged && last > _fChangesSeen) {
      // The numbers are without gaps, so a missing one says that the log was cut meanwhile.
      int64_t expected = _fChangesSeen + 1;
      CQuery query = _fConnection->Use(EStatement::kChangesSince);
      query.Int(_fChangesSeen).Int(last);
      while (query.Step() && query.IntAt(0) == expected) {
        if (!IsOwnChange(expected++)) {
          if (const Loc loc = FileLoc(query.IntAt(1))) {
            found.files.insert(loc);
          }
        }
      }
      _fEverythingChanged = expected != last + 1;
    }
    _fEverythingChanged |= last < _fChangesSeen;
    found.everything = std::exchange(_fEverythingChanged, false);
    _fDataVersion = data_version;
    _fChangesSeen = last;
    std::erase_if(_fOwnChanges, [last](const auto& run) { return run.second <= last; });
    found.report = found.everything ? Text("everything may have changed")
                                    : std::to_string(found.files.size()) + " files changed";
    return found;
  }

  // ---- The whole database.

  void VisitAllRecords(const std::function<void(const CStoredRow&)>& visit) {
    const auto statement = _fConnection->Prepare(
        "SELECT f.name, f.disk_time, r.scope, r.scan, r.scanned_file, r.scanned_scope, r.seen, "
        "r.classes, r.imports, r.data "
        "FROM (SELECT * FROM files WHERE place IS NOT NULL ORDER BY name) f "
        "CROSS JOIN records r ON r.id >= f.place AND r.id < f.place + 274877906944");
    CQuery query(statement.get());
    while (query.Step()) {
      CStoredRow row;
      row.file = query.ViewAt(0);
      row.disk_time = query.DoubleAt(1);
      const auto url = _fNames.UrlOf(row.file);
      const Loc loc = url ? _fLocCache.GetLocation(*url) : Loc();
      row.error = ReadRow(query, 2, loc, row.disk_time, row.record);
      if (!loc) {
        row.error = "the file lies in a workspace that was not given, or its name is damaged";
      }
      visit(row);
    }
  }

  bool Together(const std::function<void()>& work) {
    if (_fClosed || _fBatch != nullptr) {
      work();
      return true;
    }
    try {
      if (!_fConnection || Replaced()) {
        Reconnect();
      }
      if (!_fConnection->ReadOnly()) {
        _fConnection->LimitWaiting(_fOptions.lock_wait_ms);
        _fConnection->RollBack();
        _fConnection->Use(EStatement::kBegin).Run();
        _fBatch = _fConnection.get();
      }
    } catch (const CError&) {
      // Each operation is then on its own, and says what is wrong.
    }
    if (_fBatch == nullptr) {
      work();
      return true;
    }
    try {
      work();
    } catch (...) {
      EndBatch(false);
      throw;
    }
    return EndBatch(true);
  }

  void VisitFiles(const std::function<void(const CStoredFile&)>& visit) {
    const auto statement = _fConnection->Prepare(
        "SELECT name, disk_time, scans_done FROM files WHERE disk_time IS NOT NULL");
    CQuery query(statement.get());
    while (query.Step()) {
      // A file in a workspace that was not given has no location.
      if (const auto url = _fNames.UrlOf(query.ViewAt(0))) {
        visit({_fLocCache.GetLocation(*url), query.DoubleAt(1), Text(query.ViewAt(2))});
      }
    }
  }

  std::vector<Loc> LostSources() {
    std::vector<Loc> sources;
    const auto statement = _fConnection->Prepare("SELECT DISTINCT source FROM lost");
    for (CQuery query(statement.get()); query.Step();) {
      if (const Loc loc = FileLoc(query.IntAt(0))) {
        sources.push_back(loc);
      }
    }
    return sources;
  }

  void VisitFilesAndTies(const std::function<void(const CStoredFile&)>& visit_file,
                         const std::function<void(const CTie&)>& visit_tie) {
    struct CPlace {
      int64_t place;
      Loc loc;
      DiskTime disk_time;
    };
    std::vector<std::pair<int64_t, Loc>> by_id;
    std::vector<CPlace> places;
    const auto files = _fConnection->Prepare(
        "SELECT id, name, disk_time, scans_done, place FROM files ORDER BY id");
    for (CQuery query(files.get()); query.Step();) {
      const auto url = _fNames.UrlOf(query.ViewAt(1));
      if (!url) {
        continue;
      }
      const CStoredFile file{_fLocCache.GetLocation(*url), query.DoubleAt(2),
                             Text(query.ViewAt(3))};
      by_id.emplace_back(query.IntAt(0), file.loc);
      if (!query.IsNull(2)) {
        visit_file(file);
      }
      if (const auto place = query.OptionalIntAt(4)) {
        places.push_back({*place, file.loc, file.disk_time});
      }
    }
    // In the order of the rows, which are asked for in the order of their ids.
    std::sort(places.begin(), places.end(),
              [](const CPlace& a, const CPlace& b) { return a.place < b.place; });
    const auto file_of = [this, &by_id](int64_t id) {
      const auto found =
          std::lower_bound(by_id.begin(), by_id.end(), id,
                           [](const auto& entry, int64_t wanted) { return entry.first < wanted; });
      return found != by_id.end() && found->first == id ? found->second : FileLoc(id);
    };
    const auto statement = _fConnection->Prepare(
        "SELECT id, scanned_file, seen FROM records "
        "WHERE scanned_file IS NOT NULL OR seen IS NOT NULL ORDER BY id");
    auto place = places.begin();
    for (CQuery query(statement.get()); query.Step();) {
      const int64_t wanted = query.IntAt(0) & ~(sqlitedb::kPlaceSpan - 1);
      place = std::find_if(place, places.end(),
                           [wanted](const CPlace& each) { return each.place >= wanted; });
      if (place == places.end() || place->place != wanted) {
        continue;  // of a file without a location, or of none: Verify() tells of that
      }
      CTie tie{place->loc, place->loc, nullptr};
      if (const auto source = query.OptionalIntAt(1)) {
        tie.scanned_loc = *source == kAbsentFile ? Loc() : file_of(*source);
      }
      try {
        tie.scopes_seen = ReadScopesSeen(query, 2, place->loc, place->disk_time, file_of);
      } catch (const CValueError&) {
        // Verify() tells of that, too.
      }
      visit_tie(tie);
    }
  }

  uint64_t DatabaseBytes() {
    return static_cast<uint64_t>(_fConnection->IntOf("PRAGMA page_size") *
                                 _fConnection->IntOf("PRAGMA page_count"));
  }

  CSqliteDbStats Stats() {
    CSqliteDbStats stats;
    const auto count = [this](const char* sql) {
      return static_cast<uint64_t>(_fConnection->IntOf(sql));
    };
    stats.files = count("SELECT count(*) FROM files WHERE disk_time IS NOT NULL");
    stats.known_files = count("SELECT count(*) FROM files");
    // Rows of one scope lie side by side, in the place of their file.
    stats.scopes = count("SELECT count(*) FROM (SELECT DISTINCT id >> 38, scope FROM records)");
    const auto statement = _fConnection->Prepare(
        "SELECT s.name, count(*), sum(length(r.data)), "
        "sum(coalesce(length(CAST(r.classes AS BLOB)), 0) + "
        "coalesce(length(CAST(r.imports AS BLOB)), 0)), "
        "sum(length(CAST(r.scope AS BLOB))), sum(coalesce(length(r.seen), 0)) "
        "FROM records r LEFT JOIN scans s ON s.id = r.scan GROUP BY r.scan");
    CQuery query(statement.get());
    while (query.Step()) {
      const auto value = [&query](int column) {
        return static_cast<uint64_t>(query.IntAt(column));
      };
      stats.records += value(1);
      stats.records_by_scan[Text(query.ViewAt(0))] += value(1);
      stats.data_bytes += value(2);
      stats.equivs_bytes += value(3);
      stats.name_bytes += value(4);
      stats.scopes_seen_bytes += value(5);
    }
    stats.database_bytes = DatabaseBytes();
    stats.free_bytes = count("PRAGMA page_size") * count("PRAGMA freelist_count");
    return stats;
  }

  size_t MemoryUse() const {
    size_t bytes = 0;
    for (const int what :
         {SQLITE_DBSTATUS_CACHE_USED, SQLITE_DBSTATUS_SCHEMA_USED, SQLITE_DBSTATUS_STMT_USED}) {
      int now = 0;
      int highest = 0;
      sqlite3_db_status(_fConnection->Handle(), what, &now, &highest, 0);
      bytes += static_cast<size_t>(now);
    }
    return bytes;
  }

  std::vector<Text> Verify() {
    std::vector<Text> faults;
    int64_t visited = 0;
    try {
      const auto statement = _fConnection->Prepare("PRAGMA integrity_check");
      CQuery query(statement.get());
      while (query.Step()) {
        if (query.ViewAt(0) != "ok") {
          faults.push_back(Shown() + ": " + Text(query.ViewAt(0)));
        }
      }
      VisitAllRecords([&](const CStoredRow& row) {
        ++visited;
        if (!row.error.empty()) {
          faults.push_back(FormatPercent("%s: %s, scope %r: %s",
                                         {Shown(), row.file, row.record.for_scope, row.error}));
        }
      });
      const int64_t all = _fConnection->IntOf("SELECT count(*) FROM records");
      if (visited != all) {
        faults.push_back(FormatPercent("%s: %d rows belong to no file", {Shown(), all - visited}));
      }
    } catch (const CSqliteFailure& failure) {
      faults.push_back(FormatPercent("%s: after %d rows: %s", {Shown(), visited, failure.what()}));
    }
    return faults;
  }

  const std::string& Message() const { return _fMessage; }
  const std::string& LastError() const { return _fLastError; }
  const std::string& Shown() const { return _fOptions.path; }
  bool ReadOnly() const { return _fConnection != nullptr && _fConnection->ReadOnly(); }

 private:
  // Forgets, unless told otherwise, what a transaction entered into the look-up tables.
  class CUncommitted {
   public:
    explicit CUncommitted(CImpl& impl) : _fImpl(impl) {}
    ~CUncommitted() {
      if (!_fKept) {
        for (const Loc loc : _fImpl._fNewFiles) {
          if (const auto known = _fImpl._fIds.find(loc); known != _fImpl._fIds.end()) {
            _fImpl._fLocs.erase(known->second);
            _fImpl._fIds.erase(known);
          }
        }
        if (_fImpl._fNewScans) {
          _fImpl._fScans.clear();
        }
        // A message that was broken off leaves its beginning behind.
        _fImpl._fSerializer.Clear();
      }
      _fImpl._fNewFiles.clear();
      _fImpl._fNewScans = false;
    }
    CUncommitted(const CUncommitted&) = delete;
    CUncommitted& operator=(const CUncommitted&) = delete;
    void Keep() { _fKept = true; }

   private:
    CImpl& _fImpl;
    bool _fKept = false;
  };

  void NoteOutcome(Loc loc, bool done) {
    if (!done) {
      _fRefusals[loc] = _fLastError;
      return;
    }
    _fRefusals.erase(loc);
    if (_fBatch != nullptr) {
      _fBatchFiles.push_back(loc);
    }
  }

  // ---- The batch.

  // Some failures end a transaction, or the whole connection.
  bool IsInBatch() const {
    return _fBatch != nullptr && _fBatch == _fConnection.get() &&
           sqlite3_get_autocommit(_fConnection->Handle()) == 0;
  }

  bool EndBatch(bool commit) {
    bool committed = false;
    if (IsInBatch()) {
      try {
        if (commit) {
          _fConnection->Use(EStatement::kCommit).Run();
          committed = true;
        }
      } catch (const CSqliteFailure& failure) {
        _fLastError = Shown() + ": saving: " + failure.what();
        for (const Loc loc : _fBatchFiles) {
          _fRefusals[loc] = _fLastError;
        }
      }
      _fConnection->RollBack();
    }
    _fBatch = nullptr;
    _fBatchFiles.clear();
    if (!committed) {
      // The tables hold what was undone, and the log may get other entries under the same numbers.
      Forget();
      _fEverythingChanged = true;
    }
    return committed;
  }

  // ---- The connection.

  void Connect() {
    COpenDatabase opened = sqlitedb::OpenDatabase(_fPath, Shown());
    _fConnection = std::move(opened.connection);
    _fIdentity = opened.identity;
    AddMessage(opened.message);
    try {
      _fDataVersion = DataVersion();
      _fChangesSeen = LastChange();
    } catch (const CSqliteFailure& failure) {
      _fConnection.reset();
      throw CValueError(Shown() + ": " + failure.what());
    }
  }

  // What was known of the old file does not hold for the new one.
  void Reconnect() {
    _fConnection.reset();
    Forget();
    _fEverythingChanged = true;
    Connect();
  }

  void Forget() {
    _fIds.clear();
    _fLocs.clear();
    _fScans.clear();
    _fOwnChanges.clear();
  }

  // Whether another file, or none, is where the database was opened.
  bool Replaced() const { return !(sqlitedb::IdentityOf(_fPath) == _fIdentity); }

  // Sets the damaged database aside and begins a new one.
  void BeginAnew(const std::string& reason) {
    _fConnection.reset();
    Forget();
    _fEverythingChanged = true;
    // Another process may have done it already.
    if (!Replaced()) {
      const std::string aside = sqlitedb::SetAside(_fPath, Shown());
      const std::string message =
          reason + "; it was set aside as " + aside + " and a new database was begun";
      AddMessage(message);
      CriticalLog("%s", message);
    }
    Connect();
  }

  void AddMessage(const std::string& message) {
    if (!message.empty()) {
      _fMessage += (_fMessage.empty() ? "" : "\n") + message;
    }
  }

  // ---- Files and scans.

  // The row of the file, or where it belongs.
  CFileRow FindFile(Loc loc) {
    CFileRow row;
    const auto known = _fIds.find(loc);
    const Text name = known == _fIds.end() ? _fNames.NameOf(*loc) : Text();
    row.id = known == _fIds.end() ? sqlitedb::FirstFileId(name) : known->second;
    for (;; row.id = sqlitedb::NextFileId(row.id)) {
      CQuery query = _fConnection->Use(EStatement::kFileById);
      if (!query.Int(row.id).Step()) {
        return row;
      }
      if (known != _fIds.end() || query.ViewAt(0) == name) {
        row.known = true;
        row.disk_time = query.OptionalDoubleAt(1);
        if (!query.IsNull(2)) {
          row.scans_done = query.ViewAt(2);
        }
        row.place = query.IntAt(3);  // 0 for NULL
        NoteFile(loc, row.id, false);
        return row;
      }
    }
  }

  // Absent for a file that the database does not know.
  std::optional<int64_t> FileId(Loc loc) {
    if (const auto known = _fIds.find(loc); known != _fIds.end()) {
      return known->second;
    }
    const CFileRow row = FindFile(loc);
    return row.known ? std::optional(row.id) : std::nullopt;
  }

  // The id of a file that a row refers to; made if it is new. Only within a transaction.
  int64_t FileIdToStore(Loc loc) {
    if (const auto known = _fIds.find(loc); known != _fIds.end()) {
      return known->second;
    }
    const CFileRow row = FindFile(loc);
    if (!row.known) {
      const Text name = _fNames.NameOf(*loc);
      _fConnection->Use(EStatement::kAddFile).Int(row.id).TextOf(name).Null().Null().Null().Run();
      NoteFile(loc, row.id, true);
    }
    return row.id;
  }

  // Absent for an id that names no file here.
  Loc FileLoc(int64_t id) {
    if (const auto known = _fLocs.find(id); known != _fLocs.end()) {
      return known->second;
    }
    CQuery query = _fConnection->Use(EStatement::kFileNameById);
    if (!query.Int(id).Step()) {
      return {};
    }
    const auto url = _fNames.UrlOf(query.ViewAt(0));
    if (!url) {
      return {};
    }
    const Loc loc = _fLocCache.GetLocation(*url);
    NoteFile(loc, id, false);
    return loc;
  }

  void NoteFile(Loc loc, int64_t id, bool is_new) {
    // The interned object, which lives as long as the location cache; the caller's may not.
    const auto entered = _fIds.find(loc);
    if (entered != _fIds.end()) {
      return;
    }
    const Loc interned = _fLocCache.GetLocation(loc->fUrl);
    _fIds.emplace(interned, id);
    _fLocs.emplace(id, interned);
    if (is_new) {
      _fNewFiles.push_back(interned);
    }
  }

  // Calls found(index into locs, row) for those of the files that the database knows; the rows
  // without their places. One statement for all of them.
  template <class Found>
  void LookUpFiles(const std::vector<Loc>& locs, Found found) {
    if (locs.empty()) {
      return;
    }
    std::vector<Text> names;
    std::vector<int64_t> ids;
    names.reserve(locs.size());
    ids.reserve(locs.size());
    for (const Loc loc : locs) {
      names.push_back(_fNames.NameOf(*loc));
      const auto known = _fIds.find(loc);
      ids.push_back(known == _fIds.end() ? sqlitedb::FirstFileId(names.back()) : known->second);
    }
    const Text json = JsonArray(ids);
    std::vector<size_t> elsewhere;
    {
      CQuery query = _fConnection->Use(EStatement::kFilesByIds);
      query.TextOf(json);
      while (query.Step()) {
        const auto index = static_cast<size_t>(query.IntAt(0));
        if (query.ViewAt(1) != names[index]) {
          elsewhere.push_back(index);
          continue;
        }
        CFileRow row;
        row.id = ids[index];
        row.known = true;
        row.disk_time = query.OptionalDoubleAt(2);
        if (!query.IsNull(3)) {
          row.scans_done = query.ViewAt(3);
        }
        found(index, row);
      }
    }
    // Another file has taken the first number of these.
    for (const size_t index : elsewhere) {
      if (const CFileRow row = FindFile(locs[index]); row.known) {
        found(index, row);
      }
    }
  }

  void LoadScans() {
    _fScans.clear();
    CQuery query = _fConnection->Use(EStatement::kScans);
    while (query.Step()) {
      _fScans.emplace_back(query.IntAt(0), query.ViewAt(1));
    }
  }

  // There are two or three scans, so a list it is. One that is not known may be new, from another
  // process.
  std::optional<int64_t> ScanId(TextView name) {
    for (const bool again : {false, true}) {
      if (again) {
        LoadScans();
      }
      for (const auto& [id, known] : _fScans) {
        if (known == name) {
          return id;
        }
      }
    }
    return std::nullopt;
  }

  const Text* ScanName(int64_t scan) {
    for (const bool again : {false, true}) {
      if (again) {
        LoadScans();
      }
      for (const auto& [id, known] : _fScans) {
        if (id == scan) {
          return &known;
        }
      }
    }
    return nullptr;
  }

  int64_t ScanIdToStore(TextView name) {
    if (const auto known = ScanId(name)) {
      return *known;
    }
    _fConnection->Use(EStatement::kAddScan).TextOf(name).Run();
    const int64_t id = sqlite3_last_insert_rowid(_fConnection->Handle());
    _fScans.emplace_back(id, name);
    _fNewScans = true;
    return id;
  }

  // ---- Rows.

  // Fills the record from the row whose first column is `first`. Gives what is wrong with the row,
  // or nothing; of a row with something wrong, what could be read stands in the record.
  Text ReadRow(CQuery& query, int first, Loc for_loc, DiskTime disk_mtime,
               CDatabaseRecord& record) {
    record.for_loc = for_loc;
    record.for_scope = query.ViewAt(first);
    record.class_equivs = query.ViewAt(first + 5);
    record.import_equivs = query.ViewAt(first + 6);
    record.data = query.ViewAt(first + 7);
    if (const auto scan = query.OptionalIntAt(first + 1)) {
      const Text* const name = ScanName(*scan);
      if (name == nullptr) {
        return "its scan " + std::to_string(*scan) + " is not known";
      }
      record.scan_name = *name;
    }
    record.scanned_loc = for_loc;
    if (const auto file = query.OptionalIntAt(first + 2)) {
      record.scanned_loc = *file == kAbsentFile ? Loc() : FileLoc(*file);
      if (*file != kAbsentFile && !record.scanned_loc) {
        return "its scanned file " + std::to_string(*file) + " is not known";
      }
    }
    switch (query.Type(first + 3)) {
      case SQLITE_NULL:
        record.scanned_scope = record.for_scope;
        break;
      case SQLITE_INTEGER:
        break;
      default:
        record.scanned_scope = query.ViewAt(first + 3);
    }
    try {
      record.scopes_seen = ReadScopesSeen(query, first + 4, for_loc, disk_mtime,
                                          [this](int64_t id) { return FileLoc(id); });
    } catch (const CValueError& error) {
      return std::string("its scopes seen are damaged: ") + error.what();
    }
    return {};
  }

  // The scopes seen of a row. `file_of` gives the location of a file's id, or none.
  template <class FileOf>
  CScopesSeenPtr ReadScopesSeen(CQuery& query, int column, Loc for_loc, DiskTime disk_mtime,
                                const FileOf& file_of) {
    if (!query.IsNull(column)) {
      return _fSerializer.DeserializeScopesSeenDict(query.ViewAt(column), [&](uint64_t id) {
        const Loc loc = id > sqlitedb::kMaxFileId ? Loc() : file_of(static_cast<int64_t>(id));
        // A record must not lose one of its dependencies without a word.
        if (!loc) {
          throw CValueError("the file " + std::to_string(id) + " is not known");
        }
        return loc;
      });
    }
    if (!for_loc) {
      return nullptr;
    }
    auto itself = std::make_shared<CScopesSeenDict>();
    itself->Set(CScopeRef{for_loc, Text(kWildcardScope)}, disk_mtime);
    return itself;
  }

  void ReportDamagedRow(Loc loc, const Text& scope, const Text& error) {
    CriticalLog("%s: a damaged row was left out: %s, scope %r: %s", Shown(), loc->fUrl, scope,
                error);
  }

  // Whether the record has seen just its own file, at the file's time.
  static bool SeenItselfOnly(const CDatabaseRecord& record, Loc for_loc, DiskTime disk_mtime) {
    if (!record.scopes_seen || record.scopes_seen->empty()) {
      return false;
    }
    DiskTime time = 0;
    for (const auto& [scope, mtime] : *record.scopes_seen) {
      if (!(scope.loc == for_loc)) {
        return false;
      }
      time = mtime;
    }
    return SameBits(time, disk_mtime);
  }

  // To be followed by LogChange of the same file, before that of any other: what is lost is noted
  // under the number that it gives.
  void DropRecords(int64_t file, int64_t place) {
    const int64_t last = place + sqlitedb::kPlaceSpan - 1;
    _fConnection->Use(EStatement::kNoteLost).Int(place).Int(last).Int(file).Run();
    _fConnection->Use(EStatement::kDropRecords).Int(place).Int(last).Run();
  }

  // Forgets that rows from `source` were lost, of `target` or of all: they are there again. But not
  // what another process has dropped since this one last looked: who has not heard of it can still
  // take rows for stored that went then.
  void ForgetLost(int64_t source, std::optional<int64_t> target = std::nullopt) {
    std::vector<int64_t> found;
    {
      CQuery query = _fConnection->Use(EStatement::kLostOf);
      query.Int(source);
      while (query.Step()) {
        const int64_t seq = query.IntAt(1);
        if ((!target || *target == query.IntAt(0)) &&
            (seq <= _fChangesSeen || IsOwnChange(seq) ||
             std::find(_fOwnSaves.begin(), _fOwnSaves.end(), seq) != _fOwnSaves.end())) {
          found.push_back(query.IntAt(0));
        }
      }
    }
    for (const int64_t id : found) {
      _fConnection->Use(EStatement::kForgetLost).Int(source).Int(id).Run();
    }
  }

  int64_t NewPlace() {
    CQuery query = _fConnection->Use(EStatement::kLastRecordId);
    query.Step();
    const int64_t last = query.IsNull(0) ? 0 : query.IntAt(0);
    const int64_t place = (last / sqlitedb::kPlaceSpan + 1) * sqlitedb::kPlaceSpan;
    if (last < 0 || place > INT64_MAX - sqlitedb::kPlaceSpan - sqlitedb::kPlaceSpan) {
      throw CSqliteFailure(SQLITE_FULL, "there is no room for another file");
    }
    return place;
  }

  // Stores the records at the file's place. `replacing`: there are rows already.
  void PutRecords(Loc for_loc, int64_t file, int64_t place, bool replacing,
                  const std::vector<CDatabaseRecord>& records, DiskTime disk_mtime) {
    // In the order in which they will lie; of two records of one key the later one stays.
    std::vector<std::pair<int64_t, size_t>> order;
    order.reserve(records.size());
    for (size_t i = 0; i < records.size(); ++i) {
      order.emplace_back(sqlitedb::ScopeOffset(records[i].for_scope), i);
    }
    std::sort(order.begin(), order.end());

    CQuery put = _fConnection->Use(EStatement::kPutRecord);
    // The rows of the scope at hand: those that lie there, and those that were just put there.
    std::vector<std::pair<int64_t, CStoredKey>> rows;
    std::vector<std::unique_ptr<Text>> texts;  // what the keys of stored rows point to
    int64_t next = 0;
    for (size_t at = 0; at < order.size(); ++at) {
      const auto& [offset, index] = order[at];
      const CDatabaseRecord& record = records[index];
      if (at == 0 || order[at - 1].first != offset) {
        rows.clear();
        texts.clear();
        next = place + offset;
        if (replacing) {
          ReadKeys(place + offset, rows, texts);
          next = rows.empty() ? next : rows.back().first + 1;
        }
      }
      CStoredKey key;
      key.scope = record.for_scope;
      if (record.scan_name) {
        key.scan = ScanIdToStore(*record.scan_name);
      }
      if (!(record.scanned_loc == for_loc)) {
        key.scanned_file = record.scanned_loc ? FileIdToStore(record.scanned_loc) : kAbsentFile;
      }
      if (!record.scanned_scope) {
        key.scanned_scope_absent = true;
      } else if (*record.scanned_scope != record.for_scope) {
        key.scanned_scope = *record.scanned_scope;
      }
      const auto same = std::find_if(rows.begin(), rows.end(),
                                     [&key](const auto& row) { return row.second == key; });
      const int64_t id = same == rows.end() ? next++ : same->first;
      if (id >= place + offset + sqlitedb::kScopeSpan) {
        throw CSqliteFailure(SQLITE_FULL, "too many records of one scope");
      }
      if (same == rows.end()) {
        rows.emplace_back(id, key);
      }
      PutRecord(put, id, key, record, for_loc, file, disk_mtime);
    }
  }

  void PutRecord(CQuery& put, int64_t id, const CStoredKey& key, const CDatabaseRecord& record,
                 Loc for_loc, int64_t file, DiskTime disk_mtime) {
    put.Int(id).TextOf(key.scope);
    key.scan ? put.Int(*key.scan) : put.Null();
    key.scanned_file ? put.Int(*key.scanned_file) : put.Null();
    if (key.scanned_scope_absent) {
      put.Int(0);
    } else {
      key.scanned_scope ? put.TextOf(*key.scanned_scope) : put.Null();
    }
    Bytes seen;
    if (SeenItselfOnly(record, for_loc, disk_mtime)) {
      put.Null();
    } else {
      seen = _fSerializer.SerializeScopesSeenDict(
          record.scopes_seen.get(), [&](Loc loc) -> std::optional<uint64_t> {
            if (!loc) {
              return std::nullopt;
            }
            return static_cast<uint64_t>(loc == for_loc ? file : FileIdToStore(loc));
          });
      put.BytesOf(seen);
    }
    record.class_equivs.empty() ? put.Null() : put.TextOf(record.class_equivs);
    record.import_equivs.empty() ? put.Null() : put.TextOf(record.import_equivs);
    put.BytesOf(record.data).Run();
  }

  // The ids and keys of the rows whose scope has that hash.
  void ReadKeys(int64_t first, std::vector<std::pair<int64_t, CStoredKey>>& rows,
                std::vector<std::unique_ptr<Text>>& texts) {
    const auto keep = [&texts](TextView view) {
      texts.push_back(std::make_unique<Text>(view));
      return TextView(*texts.back());
    };
    CQuery query = _fConnection->Use(EStatement::kRecordKeys);
    query.Int(first).Int(first + sqlitedb::kScopeSpan - 1);
    while (query.Step()) {
      CStoredKey key;
      key.scope = keep(query.ViewAt(1));
      key.scan = query.OptionalIntAt(2);
      key.scanned_file = query.OptionalIntAt(3);
      key.scanned_scope_absent = query.Type(4) == SQLITE_INTEGER;
      if (!key.scanned_scope_absent && !query.IsNull(4)) {
        key.scanned_scope = keep(query.ViewAt(4));
      }
      rows.emplace_back(query.IntAt(0), key);
    }
  }

  // ---- Changes.

  int64_t DataVersion() {
    CQuery query = _fConnection->Use(EStatement::kDataVersion);
    return query.Step() ? query.IntAt(0) : 0;
  }

  // The last number in the log; 0 when it is empty.
  int64_t LastChange() {
    CQuery query = _fConnection->Use(EStatement::kLastChange);
    return query.Step() ? query.IntAt(0) : 0;
  }

  void LogChange(int64_t file) {
    _fConnection->Use(EStatement::kLogChange).Int(file).Run();
    const int64_t seq = sqlite3_last_insert_rowid(_fConnection->Handle());
    if (seq % sqlitedb::kChangesCutEvery == 0 && seq > sqlitedb::kChangesKept) {
      _fConnection->Use(EStatement::kCutChanges).Int(seq - sqlitedb::kChangesKept).Run();
    }
    _fOwnSaves.push_back(seq);
  }

  void NoteOwnChange(int64_t seq) {
    if (!_fOwnChanges.empty() && _fOwnChanges.back().second + 1 == seq) {
      _fOwnChanges.back().second = seq;
      return;
    }
    if (_fOwnChanges.size() == kMostOwnRuns) {
      _fOwnChanges.clear();
      _fEverythingChanged = true;
    }
    _fOwnChanges.emplace_back(seq, seq);
  }

  bool IsOwnChange(int64_t seq) const {
    const auto run =
        std::lower_bound(_fOwnChanges.begin(), _fOwnChanges.end(), seq,
                         [](const auto& own, int64_t value) { return own.second < value; });
    return run != _fOwnChanges.end() && run->first <= seq;
  }

  const CSqliteDbOptions _fOptions;
  const std::string _fPath;  // absolute
  CLocationCache& _fLocCache;
  const sqlitedb::CFileNames _fNames;
  scopeinfo::CScopeInfoSerializer _fSerializer;

  bool _fClosed = false;
  std::unique_ptr<CSqliteConnection> _fConnection;  // null after a failed attempt to connect again
  sqlitedb::CFileIdentity _fIdentity;               // of the file that is open
  std::string _fMessage;
  std::string _fLastError;
  std::unordered_map<Loc, std::string> _fRefusals;  // by file, until it is written after all

  // The ids of the files met so far, both ways, and all scans. Ids never change, so these hold
  // whatever other processes do, as long as the database is the same file.
  std::unordered_map<Loc, int64_t> _fIds;
  std::unordered_map<int64_t, Loc> _fLocs;
  std::vector<std::pair<int64_t, Text>> _fScans;
  // What the running transaction has added to them.
  std::vector<Loc> _fNewFiles;
  bool _fNewScans = false;

  // The state of the file when it was last looked at for changes.
  int64_t _fDataVersion = 0;
  int64_t _fChangesSeen = 0;
  // The database was replaced, or continuity was lost otherwise: to be told at the next check.
  bool _fEverythingChanged = false;
  CSqliteConnection* _fBatch = nullptr;  // that the batch began on; null: no batch
  std::vector<Loc> _fBatchFiles;         // that the batch has written
  // Numbers in the log, after _fChangesSeen, of what this process did: runs from first to last.
  std::vector<std::pair<int64_t, int64_t>> _fOwnChanges;
  std::vector<int64_t> _fOwnSaves;  // those of the running transaction
};

// ---- CSqliteAnalysisDb

CSqliteAnalysisDb::CSqliteAnalysisDb(CSqliteDbOptions options, CLocationCache& loc_cache)
    : _fImpl(std::make_unique<CImpl>(std::move(options), loc_cache)) {}

CSqliteAnalysisDb::~CSqliteAnalysisDb() { destroy(); }

void CSqliteAnalysisDb::_destroy_impl() { _fImpl->Close(); }

void CSqliteAnalysisDb::Tell(const char* operation, Loc loc, const std::vector<Text>* scopes,
                             size_t count) const {
  if (fOnCall) {
    fOnCall({operation, loc, scopes != nullptr ? *scopes : std::vector<Text>(), count});
  }
}

std::vector<Text> CSqliteAnalysisDb::ReadScopeNames(Loc loc, TextView primary_scan_name,
                                                    DiskTime disk_mtime) {
  auto names = _fImpl->Reading<std::vector<Text>>("reading scope names", [&] {
    return _fImpl->ReadScopeNames(loc, primary_scan_name, disk_mtime);
  });
  Tell("ReadScopeNames", loc, nullptr, names.size());
  return names;
}

std::vector<CDatabaseRecord> CSqliteAnalysisDb::ReadScopeDataRecords(
    Loc loc, const std::vector<Text>& scan_names, const std::vector<Text>& scope_names,
    DiskTime disk_mtime) {
  auto records = _fImpl->Reading<std::vector<CDatabaseRecord>>("reading records", [&] {
    return _fImpl->ReadScopeDataRecords(loc, scan_names, scope_names, disk_mtime);
  });
  Tell("ReadScopeDataRecords", loc, &scope_names, records.size());
  return records;
}

CScansDoneDict CSqliteAnalysisDb::GetScansDone(const CLocMtimeDict& loc_mtime_dict) {
  auto scans_done = _fImpl->Reading<CScansDoneDict>(
      "reading scans done", [&] { return _fImpl->GetScansDone(loc_mtime_dict); });
  Tell("GetScansDone", loc_mtime_dict.size() == 1 ? (*loc_mtime_dict.begin()).first : Loc(),
       nullptr, scans_done.size());
  return scans_done;
}

bool CSqliteAnalysisDb::SaveDataForFile(Loc loc, const std::vector<CDatabaseRecord>& records,
                                        TextView scans_done, DiskTime disk_mtime) {
  const bool saved = _fImpl->SaveFile(loc, records, scans_done, disk_mtime);
  Tell("SaveDataForFile", loc, nullptr, saved ? records.size() : 0);
  return saved;
}

bool CSqliteAnalysisDb::ClearInfoForFiles(const std::vector<Loc>& loc_list) {
  const bool cleared = _fImpl->ClearFiles(loc_list);
  Tell("ClearInfoForFiles", loc_list.size() == 1 ? loc_list.front() : Loc(), nullptr,
       cleared ? loc_list.size() : 0);
  return cleared;
}

std::vector<CImportEquiv> CSqliteAnalysisDb::GetAllImports(const std::vector<Loc>& db_locs,
                                                           TextView primary_scan_name) {
  auto all_imports = _fImpl->Reading<std::vector<CImportEquiv>>("reading imports", [&] {
    std::vector<CImportEquiv> imports;
    _fImpl->GetEquivs(EStatement::kImports, db_locs, primary_scan_name,
                      [&](size_t index, const Text& scope, const Bytes& equivs) {
                        for (const BytesView item : NonNestedSplit(equivs, ';')) {
                          imports.push_back({db_locs[index], scope, Bytes(item)});
                        }
                      });
    return imports;
  });
  Tell("GetAllImports", Loc(), nullptr, all_imports.size());
  return all_imports;
}

std::vector<CClassEquiv> CSqliteAnalysisDb::GetAllClasses(const std::vector<Loc>& db_locs,
                                                          TextView primary_scan_name) {
  auto all_classes = _fImpl->Reading<std::vector<CClassEquiv>>("reading classes", [&] {
    std::vector<CClassEquiv> classes;
    _fImpl->GetEquivs(EStatement::kClasses, db_locs, primary_scan_name,
                      [&](size_t index, const Text&, const Bytes& equivs) {
                        for (const BytesView item : NonNestedSplit(equivs, ';')) {
                          classes.push_back({db_locs[index], Bytes(item)});
                        }
                      });
    return classes;
  });
  Tell("GetAllClasses", Loc(), nullptr, all_classes.size());
  return all_classes;
}

Text CSqliteAnalysisDb::CheckForExternalChanges() {
  const auto found =
      _fImpl->Reading<CFoundChanges>("looking for changes", [&] { return _fImpl->FindChanges(); });
  if (found.everything) {
    emit(kExternalDbContentsChanged, nullptr);
  } else if (!found.files.empty()) {
    emit(kExternalDbContentsChanged, &found.files);
  }
  return found.report;
}

const std::string& CSqliteAnalysisDb::Message() const { return _fImpl->Message(); }
const std::string& CSqliteAnalysisDb::LastError() const { return _fImpl->LastError(); }

const std::string& CSqliteAnalysisDb::RefusalOf(Loc loc) const { return _fImpl->RefusalOf(loc); }
const std::string& CSqliteAnalysisDb::Path() const { return _fImpl->Shown(); }
bool CSqliteAnalysisDb::ReadOnly() const { return _fImpl->ReadOnly(); }

bool CSqliteAnalysisDb::Together(const std::function<void()>& work) {
  return _fImpl->Together(work);
}

std::vector<Loc> CSqliteAnalysisDb::LostSources() {
  return _fImpl->Looking<std::vector<Loc>>("reading lost sources",
                                           [&] { return _fImpl->LostSources(); });
}

void CSqliteAnalysisDb::VisitFiles(const std::function<void(const CStoredFile&)>& visit) {
  _fImpl->Looking<bool>("reading all files", [&] {
    _fImpl->VisitFiles(visit);
    return true;
  });
}

void CSqliteAnalysisDb::VisitFilesAndTies(const std::function<void(const CStoredFile&)>& visit_file,
                                          const std::function<void(const CTie&)>& visit_tie) {
  _fImpl->Looking<bool>("reading all files and ties", [&] {
    _fImpl->VisitFilesAndTies(visit_file, visit_tie);
    return true;
  });
}

void CSqliteAnalysisDb::VisitAllRecords(const std::function<void(const CStoredRow&)>& visit) {
  _fImpl->Looking<bool>("reading all records", [&] {
    _fImpl->VisitAllRecords(visit);
    return true;
  });
}

size_t CSqliteAnalysisDb::MemoryUse() const { return _fImpl->MemoryUse(); }

CSqliteDbStats CSqliteAnalysisDb::Stats() {
  return _fImpl->Looking<CSqliteDbStats>("counting", [&] { return _fImpl->Stats(); });
}

uint64_t CSqliteAnalysisDb::DatabaseBytes() {
  return _fImpl->Looking<uint64_t>("counting pages", [&] { return _fImpl->DatabaseBytes(); });
}

std::vector<Text> CSqliteAnalysisDb::Verify() {
  return _fImpl->Looking<std::vector<Text>>("verifying", [&] { return _fImpl->Verify(); });
}

}  // namespace pysource::standalone
