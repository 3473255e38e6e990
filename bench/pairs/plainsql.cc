#include "bench/pairs/plainsql.h"

#include <map>
#include <stdexcept>

#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"

namespace pysource::bench {
namespace {

constexpr const char* kPlainSchema = R"(
  PRAGMA journal_mode = WAL;
  PRAGMA synchronous = NORMAL;
  CREATE TABLE IF NOT EXISTS files(id INTEGER PRIMARY KEY, name TEXT UNIQUE, disk_time REAL,
                                   scans_done TEXT);
  CREATE TABLE IF NOT EXISTS records(file INTEGER, scope TEXT, scan TEXT, scanned_file INTEGER,
                                     scanned_scope TEXT, seen BLOB, classes TEXT, imports TEXT,
                                     data BLOB,
    PRIMARY KEY(file, scope, scan, scanned_file, scanned_scope)) WITHOUT ROWID;
)";

void BindText(sqlite3_stmt* statement, int at, TextView text) {
  sqlite3_bind_text(statement, at, text.data() == nullptr ? "" : text.data(),
                    static_cast<int>(text.size()), SQLITE_STATIC);
}

void BindBlob(sqlite3_stmt* statement, int at, BytesView bytes) {
  sqlite3_bind_blob(statement, at, bytes.data() == nullptr ? "" : bytes.data(),
                    static_cast<int>(bytes.size()), SQLITE_STATIC);
}

TextView ColumnOf(sqlite3_stmt* statement, int at) {
  const auto* const text = static_cast<const char*>(sqlite3_column_blob(statement, at));
  return {text == nullptr ? "" : text, static_cast<size_t>(sqlite3_column_bytes(statement, at))};
}

}  // namespace

std::vector<CPlainFile> PlainFiles(CBenchWorld& world) {
  std::map<Text, CPlainFile> by_url;
  std::map<Text, int64_t> ids;
  const auto id_of = [&ids](Loc loc) {
    return ids.emplace(loc->fUrl, static_cast<int64_t>(ids.size()) + 1).first->second;
  };
  world.Db().VisitFiles([&](const standalone::CStoredFile& file) {
    by_url[file.loc->fUrl] = {id_of(file.loc), file.loc->fUrl, file.disk_time, file.scans_done, {}};
  });
  scopeinfo::CScopeInfoSerializer serializer;
  world.Db().VisitAllRecords([&](const standalone::CStoredRow& row) {
    const CDatabaseRecord& record = row.record;
    by_url[record.for_loc->fUrl].rows.push_back(
        {.scope = record.for_scope,
         .scan = record.scan_name.value_or(""),
         .scanned_file = id_of(record.scanned_loc),
         .scanned_scope = record.scanned_scope.value_or(""),
         .seen = serializer.SerializeScopesSeenDict(
             record.scopes_seen.get(), [&](Loc loc) { return static_cast<uint64_t>(id_of(loc)); }),
         .classes = record.class_equivs,
         .imports = record.import_equivs,
         .data = record.data});
  });
  std::vector<CPlainFile> files;
  for (auto& [url, file] : by_url) {
    files.push_back(std::move(file));
  }
  return files;
}

CPlainDb::CPlainDb(const std::string& path) {
  if (sqlite3_open(path.c_str(), &_fDb) != SQLITE_OK ||
      sqlite3_exec(_fDb, kPlainSchema, nullptr, nullptr, nullptr) != SQLITE_OK) {
    throw std::runtime_error(path + ": " + sqlite3_errmsg(_fDb));
  }
  _fBegin = Prepare("BEGIN IMMEDIATE");
  _fCommit = Prepare("COMMIT");
  _fPutFile = Prepare("INSERT OR REPLACE INTO files VALUES(?, ?, ?, ?)");
  _fPutRow = Prepare("INSERT OR REPLACE INTO records VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)");
  _fRead = Prepare(
      "SELECT r.scope, r.scan, r.scanned_file, r.scanned_scope, r.seen, r.classes, r.imports, "
      "r.data FROM files f CROSS JOIN records r ON r.file = f.id "
      "WHERE f.name = ? AND f.disk_time = ?");
}

CPlainDb::~CPlainDb() {
  for (sqlite3_stmt* const statement : {_fBegin, _fCommit, _fPutFile, _fPutRow, _fRead}) {
    sqlite3_finalize(statement);
  }
  sqlite3_close(_fDb);
}

sqlite3_stmt* CPlainDb::Prepare(const char* sql) {
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v3(_fDb, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) !=
      SQLITE_OK) {
    throw std::runtime_error(sqlite3_errmsg(_fDb));
  }
  return statement;
}

void CPlainDb::Step(sqlite3_stmt* statement) {
  if (sqlite3_step(statement) != SQLITE_DONE) {
    throw std::runtime_error(sqlite3_errmsg(_fDb));
  }
  sqlite3_reset(statement);
}

void CPlainDb::Write(const CPlainFile& file) {
  Step(_fBegin);
  sqlite3_bind_int64(_fPutFile, 1, file.id);
  BindText(_fPutFile, 2, file.url);
  sqlite3_bind_double(_fPutFile, 3, file.disk_mtime);
  BindText(_fPutFile, 4, file.scans_done);
  Step(_fPutFile);
  for (const CPlainRow& row : file.rows) {
    sqlite3_bind_int64(_fPutRow, 1, file.id);
    BindText(_fPutRow, 2, row.scope);
    BindText(_fPutRow, 3, row.scan);
    sqlite3_bind_int64(_fPutRow, 4, row.scanned_file);
    BindText(_fPutRow, 5, row.scanned_scope);
    BindBlob(_fPutRow, 6, row.seen);
    BindText(_fPutRow, 7, row.classes);
    BindText(_fPutRow, 8, row.imports);
    BindBlob(_fPutRow, 9, row.data);
    Step(_fPutRow);
  }
  Step(_fCommit);
}

void CPlainDb::Read(TextView url, DiskTime disk_mtime,
                    const std::function<void(const CRowView&)>& visit) {
  BindText(_fRead, 1, url);
  sqlite3_bind_double(_fRead, 2, disk_mtime);
  int code = sqlite3_step(_fRead);
  for (; code == SQLITE_ROW; code = sqlite3_step(_fRead)) {
    visit({.scope = ColumnOf(_fRead, 0),
           .scan = ColumnOf(_fRead, 1),
           .scanned_file = sqlite3_column_int64(_fRead, 2),
           .scanned_scope = ColumnOf(_fRead, 3),
           .data = ColumnOf(_fRead, 7)});
  }
  sqlite3_reset(_fRead);
  if (code != SQLITE_DONE) {
    throw std::runtime_error(sqlite3_errmsg(_fDb));
  }
}

}  // namespace pysource::bench
