#include "pysource/standalone/sqlitedb/wholedatabase.h"

#include <algorithm>
#include <utility>

#include "pysource/host/errors.h"
#include "pysource/host/repr.h"
#include "pysource/standalone/sqlitedb/schema.h"
#include "pysource/standalone/sqlitedb/soundness.h"

#define PYSOURCE_FILE_COLUMNS "id, name, disk_time, scans_done, place, tally, foreign_tally, sum"

namespace pysource::standalone::sqlitedb {

void VisitFiles(CSession& session, const std::function<void(const CStoredFile&)>& visit) {
  const auto statement =
      session.connection->Prepare("SELECT " PYSOURCE_FILE_COLUMNS " FROM files ORDER BY id");
  CQuery query(statement.get());
  while (query.Step()) {
    const CFileRow row = session.files.RowAt(query, 0);
    const Loc loc = row.disk_time ? session.files.LocOfName(row.name) : Loc();
    if (loc) {
      visit({loc, *row.disk_time, row.scans_done.value_or(Text()), std::nullopt});
    }
  }
}

void VisitFilesAndTies(CSession& session, const std::function<void(const CStoredFile&)>& visit_file,
                       const std::function<void(Loc, const CContentMark&)>& visit_content,
                       const std::function<void(const CTie&)>& visit_tie) {
  struct CPlace {
    int64_t place;
    Loc loc;
    DiskTime disk_time;
  };
  std::vector<std::pair<int64_t, Loc>> by_id;
  std::vector<CPlace> places;
  std::vector<std::pair<int64_t, CContentMark>> contents;
  session.contents.Visit(
      [&contents](int64_t file, const CContentMark& mark) { contents.emplace_back(file, mark); });
  auto content = contents.begin();
  const auto files =
      session.connection->Prepare("SELECT " PYSOURCE_FILE_COLUMNS " FROM files ORDER BY id");
  for (CQuery query(files.get()); query.Step();) {
    const CFileRow row = session.files.RowAt(query, 0);
    const Loc loc = session.files.LocOfName(row.name);
    if (!loc) {
      continue;
    }
    by_id.emplace_back(row.id, loc);
    while (content != contents.end() && content->first < row.id) {
      ++content;
    }
    const bool has_mark = content != contents.end() && content->first == row.id;
    if (row.disk_time) {
      visit_file({loc, *row.disk_time, row.scans_done.value_or(Text()),
                  has_mark ? std::optional(content->second) : std::nullopt});
    } else if (has_mark) {
      visit_content(loc, content->second);
    }
    if (row.place != 0) {
      places.push_back({row.place, loc, row.disk_time.value_or(0)});
    }
  }
  // In the order of the rows, which are asked for in the order of their ids.
  std::sort(places.begin(), places.end(),
            [](const CPlace& a, const CPlace& b) { return a.place < b.place; });
  const auto file_of = [&session, &by_id](int64_t id) {
    const auto found =
        std::lower_bound(by_id.begin(), by_id.end(), id,
                         [](const auto& entry, int64_t wanted) { return entry.first < wanted; });
    return found != by_id.end() && found->first == id ? found->second : session.files.LocOf(id);
  };
  const auto statement = session.connection->Prepare(
      "SELECT id, scanned_file, seen FROM records "
      "WHERE scanned_file IS NOT NULL OR seen IS NOT NULL ORDER BY id");
  auto place = places.begin();
  for (CQuery query(statement.get()); query.Step();) {
    const int64_t wanted = query.IntAt(0) & ~(kPlaceSpan - 1);
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
      tie.scopes_seen =
          session.records.ReadScopesSeen(query, 2, place->loc, place->disk_time, file_of);
    } catch (const CValueError&) {
      // Verify() tells of that, too.
    }
    visit_tie(tie);
  }
}

void VisitContents(CSession& session, const std::function<void(Loc, const CContentMark&)>& visit) {
  const auto statement = session.connection->Prepare(
      "SELECT f.name, c.seal, c.disk_time FROM contents c "
      "CROSS JOIN files f ON f.id = c.file");
  for (CQuery query(statement.get()); query.Step();) {
    if (const Loc loc = session.files.LocOfName(query.ViewAt(0))) {
      visit(loc, CContentTable::MarkAt(query, 1));
    }
  }
}

void VisitAllRecords(CSession& session, const std::function<void(const CStoredRow&)>& visit) {
  const auto statement = session.connection->Prepare(
      "SELECT r.id, r.sum, r.scope, r.scan, r.scanned_file, r.scanned_scope, r.seen, r.classes, "
      "r.imports, r.data, f.id, f.name, f.disk_time "
      "FROM (SELECT * FROM files WHERE place IS NOT NULL ORDER BY name) f "
      "CROSS JOIN records r ON r.id >= f.place AND r.id < f.place + 274877906944");
  CQuery query(statement.get());
  while (query.Step()) {
    CStoredRow row;
    row.file = query.ViewAt(11);
    row.disk_time = query.DoubleAt(12);
    const Loc loc = session.files.LocOfName(row.file);
    row.error =
        session.records.ReadRow(query, query.IntAt(10), loc, row.disk_time, row.record).text;
    if (!loc) {
      row.error = "the file lies in a workspace that was not given, or its name is damaged";
    }
    visit(row);
  }
}

uint64_t DatabaseBytes(CSession& session) {
  return static_cast<uint64_t>(session.connection->IntOf("PRAGMA page_size") *
                               session.connection->IntOf("PRAGMA page_count"));
}

CSqliteDbStats StatsOf(CSession& session) {
  CSqliteDbStats stats;
  const auto count = [&session](const char* sql) {
    return static_cast<uint64_t>(session.connection->IntOf(sql));
  };
  stats.files = count("SELECT count(*) FROM files WHERE disk_time IS NOT NULL");
  stats.known_files = count("SELECT count(*) FROM files");
  // Rows of one scope lie side by side, in the place of their file.
  stats.scopes = count("SELECT count(*) FROM (SELECT DISTINCT id >> 38, scope FROM records)");
  const auto statement = session.connection->Prepare(
      "SELECT s.name, count(*), sum(length(r.data)), "
      "sum(coalesce(length(CAST(r.classes AS BLOB)), 0) + "
      "coalesce(length(CAST(r.imports AS BLOB)), 0)), "
      "sum(length(CAST(r.scope AS BLOB))), sum(coalesce(length(r.seen), 0)) "
      "FROM records r LEFT JOIN scans s ON s.id = r.scan GROUP BY r.scan");
  CQuery query(statement.get());
  while (query.Step()) {
    const auto value = [&query](int column) { return static_cast<uint64_t>(query.IntAt(column)); };
    stats.records += value(1);
    stats.records_by_scan[Text(query.ViewAt(0))] += value(1);
    stats.data_bytes += value(2);
    stats.equivs_bytes += value(3);
    stats.name_bytes += value(4);
    stats.scopes_seen_bytes += value(5);
  }
  stats.database_bytes = DatabaseBytes(session);
  stats.free_bytes = count("PRAGMA page_size") * count("PRAGMA freelist_count");
  return stats;
}

size_t MemoryUse(CSession& session) {
  size_t bytes = 0;
  for (const int what :
       {SQLITE_DBSTATUS_CACHE_USED, SQLITE_DBSTATUS_SCHEMA_USED, SQLITE_DBSTATUS_STMT_USED}) {
    int now = 0;
    int highest = 0;
    sqlite3_db_status(session.connection->Handle(), what, &now, &highest, 0);
    bytes += static_cast<size_t>(now);
  }
  return bytes;
}

std::vector<Text> Verify(CSession& session, const std::string& shown) {
  std::vector<Text> faults = CheckSoundness(session, shown).faults;
  const bool is_sound = faults.empty();
  try {
    VisitAllRecords(session, [&](const CStoredRow& row) {
      // Of those that are damaged, the check has told.
      if (!row.error.empty() && is_sound) {
        faults.push_back(FormatPercent("%s: %s, scope %r: %s",
                                       {shown, row.file, row.record.for_scope, row.error}));
      }
    });
  } catch (const CSqliteFailure& failure) {
    if (is_sound) {
      faults.push_back(shown + ": " + failure.what());
    }
  }
  return faults;
}

}  // namespace pysource::standalone::sqlitedb
