#include "pysource/standalone/sqlitedb/connection.h"

#include <unistd.h>

#include <algorithm>

#include "pysource/standalone/sqlitedb/schema.h"

namespace pysource::standalone::sqlitedb {
namespace {

// The range of a file's rows, and of one scope's among them, as they stand in schema.h: 1 << 38 and
// 1 << 20.
static_assert(kPlaceSpan == 274877906944 && kScopeSpan == 1048576);
#define PYSOURCE_ROWS_OF_FILE "r.id BETWEEN f.place AND f.place + 274877906943"
#define PYSOURCE_FILE \
  "f.id, f.name, f.disk_time, f.scans_done, f.place, f.tally, f.foreign_tally, f.sum"
#define PYSOURCE_HEAD                                                                  \
  "r.id, r.sum, r.scope, r.scan, r.scanned_file, r.scanned_scope, r.seen, r.classes, " \
  "r.imports, "
#define PYSOURCE_ROW PYSOURCE_HEAD "r.data, " PYSOURCE_FILE
#define PYSOURCE_ROW_WITHOUT_DATA PYSOURCE_HEAD "NULL, " PYSOURCE_FILE
#define PYSOURCE_PUT                                                                   \
  "INSERT OR REPLACE INTO records(id, sum, scope, scan, scanned_file, scanned_scope, " \
  "seen, classes, imports, data) VALUES "
#define PYSOURCE_PUT_ROW "(?,?,?,?,?,?,?,?,?,?)"

// CROSS JOIN fixes the order of the loops: the file first, then its range of rows.
const char* SqlOf(EStatement statement) {
  switch (statement) {
    case EStatement::kBegin:
      return "BEGIN IMMEDIATE";
    case EStatement::kCommit:
      return "COMMIT";
    case EStatement::kFileById:
      return "SELECT " PYSOURCE_FILE " FROM files f WHERE f.id = ?";
    case EStatement::kFilesByIds:
      return "SELECT " PYSOURCE_FILE
             ", j.key FROM json_each(?) j CROSS JOIN files f ON f.id = j.value";
    case EStatement::kAddFile:
      return "INSERT INTO files(id, name, disk_time, scans_done, place, tally, foreign_tally, sum) "
             "VALUES(?, ?, ?, ?, ?, ?, ?, ?)";
    case EStatement::kSetFile:
      return "UPDATE files SET name = ?2, disk_time = ?3, scans_done = ?4, place = ?5, tally = ?6, "
             "foreign_tally = ?7, sum = ?8 WHERE id = ?1";
    case EStatement::kLastRecordId:
      return "SELECT max(id) FROM records";
    case EStatement::kRecordKeys:
      return "SELECT id, sum, scope, scan, scanned_file, scanned_scope FROM records "
             "WHERE id BETWEEN ? AND ?";
    case EStatement::kPutRecord:
      return PYSOURCE_PUT PYSOURCE_PUT_ROW;
    case EStatement::kPutRecords:
      static_assert(kRowsAtOnce == 8);
      return PYSOURCE_PUT PYSOURCE_PUT_ROW
          "," PYSOURCE_PUT_ROW "," PYSOURCE_PUT_ROW "," PYSOURCE_PUT_ROW "," PYSOURCE_PUT_ROW
          "," PYSOURCE_PUT_ROW "," PYSOURCE_PUT_ROW "," PYSOURCE_PUT_ROW;
    case EStatement::kDropRecords:
      return "DELETE FROM records WHERE id BETWEEN ? AND ?";
    case EStatement::kLostSources:
      return "SELECT DISTINCT f.id FROM records r JOIN files f ON f.id = r.scanned_file "
             "WHERE r.id BETWEEN ? AND ? AND f.disk_time IS NOT NULL";
    case EStatement::kNoteLost:
      return "INSERT OR REPLACE INTO lost(source, target, seq, sum) VALUES(?, ?, ?, ?)";
    case EStatement::kLostOf:
      return "SELECT source, target, seq, sum FROM lost WHERE source = ?";
    case EStatement::kForgetLost:
      return "DELETE FROM lost WHERE source = ? AND target = ?";
    case EStatement::kContentOf:
      return "SELECT seal, disk_time FROM contents WHERE file = ?";
    case EStatement::kPutContent:
      return "INSERT OR REPLACE INTO contents(file, seal, disk_time) VALUES(?, ?, ?)";
    case EStatement::kLogChange:
      return "INSERT INTO changes(seq, file, tally, sum) VALUES(?, ?, ?, ?)";
    case EStatement::kCutChanges:
      return "DELETE FROM changes WHERE seq <= ?";
    // A file without rows gives one, of its own columns.
    case EStatement::kScopeNames:
      return "SELECT " PYSOURCE_ROW_WITHOUT_DATA
             " FROM files f LEFT JOIN records r ON " PYSOURCE_ROWS_OF_FILE " WHERE f.id = ?";
    case EStatement::kRecordsAll:
      return "SELECT " PYSOURCE_ROW " FROM files f LEFT JOIN records r ON " PYSOURCE_ROWS_OF_FILE
             " WHERE f.id = ?";
    case EStatement::kRecordsOne:
      return "SELECT " PYSOURCE_ROW
             " FROM files f LEFT JOIN records r "
             "ON r.id BETWEEN f.place + ?2 AND f.place + ?2 + 1048575 "
             "WHERE f.id = ?1";
    case EStatement::kRecordsMany:
      return "SELECT " PYSOURCE_ROW
             " FROM files f CROSS JOIN json_each(?2) j LEFT JOIN records r "
             "ON r.id BETWEEN f.place + j.value AND f.place + j.value + 1048575 "
             "WHERE f.id = ?1";
    case EStatement::kEquivs:
      return "SELECT " PYSOURCE_ROW_WITHOUT_DATA
             ", j.key FROM json_each(?) j CROSS JOIN files f ON f.id = j.value "
             "LEFT JOIN records r ON " PYSOURCE_ROWS_OF_FILE;
    // One statement, and so of one moment.
    case EStatement::kFilesTally:
      return "SELECT sum, 0 FROM files UNION ALL SELECT sum, 0 FROM lost UNION ALL "
             "SELECT tally, 1 FROM (SELECT tally FROM changes ORDER BY seq DESC LIMIT 1)";
    case EStatement::kScans:
      return "SELECT id, name, sum FROM scans";
    case EStatement::kAddScan:
      return "INSERT INTO scans(id, name, sum) VALUES(?, ?, ?)";
    case EStatement::kDataVersion:
      return "PRAGMA data_version";
    case EStatement::kLastChange:
      return "SELECT seq, file, tally, sum FROM changes ORDER BY seq DESC LIMIT 1";
    case EStatement::kChangesSince:
      return "SELECT seq, file, tally, sum FROM changes WHERE seq > ? AND seq <= ?";
    case EStatement::kCount:
      break;
  }
  return "";
}

#undef PYSOURCE_ROWS_OF_FILE
#undef PYSOURCE_ROW
#undef PYSOURCE_ROW_WITHOUT_DATA
#undef PYSOURCE_HEAD
#undef PYSOURCE_FILE

// No record comes near it; SQLite's own limit is 1 GB, which a damaged length would take.
constexpr int kMaxValueBytes = 64 << 20;

// Instructions of SQLite's machine between two looks at whether to end: well below a millisecond.
constexpr int kStepsBetweenLooks = 2000;
constexpr std::chrono::milliseconds kLongOperation(200);

}  // namespace

bool CSqliteFailure::IsDamage() const {
  const int primary = fCode & 0xFF;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

void ThrowDamagedRow(const std::string& what) { throw CSqliteFailure(SQLITE_CORRUPT, what); }

Text JsonArray(const std::vector<int64_t>& values) {
  Text json = "[";
  for (const int64_t value : values) {
    if (json.size() > 1) {
      json += ',';
    }
    json += std::to_string(value);
  }
  return json += ']';
}

// ---- CQuery

CQuery::~CQuery() {
  sqlite3_reset(_fStatement);
  sqlite3_clear_bindings(_fStatement);
}

void CQuery::Fail() {
  sqlite3* const db = sqlite3_db_handle(_fStatement);
  throw CSqliteFailure(sqlite3_extended_errcode(db), sqlite3_errmsg(db));
}

void CQuery::Bind(int code) {
  if (code != SQLITE_OK) {
    Fail();
  }
}

CQuery& CQuery::Int(int64_t value) {
  Bind(sqlite3_bind_int64(_fStatement, ++_fBound, value));
  return *this;
}

CQuery& CQuery::Double(double value) {
  Bind(sqlite3_bind_double(_fStatement, ++_fBound, value));
  return *this;
}

// A view of nothing can have a null pointer, which would bind NULL.

CQuery& CQuery::TextOf(TextView value) {
  const char* const data = value.data() == nullptr ? "" : value.data();
  Bind(sqlite3_bind_text64(_fStatement, ++_fBound, data, value.size(), SQLITE_STATIC, SQLITE_UTF8));
  return *this;
}

CQuery& CQuery::BytesOf(BytesView value) {
  const char* const data = value.data() == nullptr ? "" : value.data();
  Bind(sqlite3_bind_blob64(_fStatement, ++_fBound, data, value.size(), SQLITE_STATIC));
  return *this;
}

CQuery& CQuery::Null() {
  Bind(sqlite3_bind_null(_fStatement, ++_fBound));
  return *this;
}

bool CQuery::Step() {
  const int code = sqlite3_step(_fStatement);
  if (code == SQLITE_ROW) {
    return true;
  }
  if (code != SQLITE_DONE) {
    Fail();
  }
  return false;
}

void CQuery::Run() {
  while (Step()) {
  }
  sqlite3_reset(_fStatement);
  _fBound = 0;
}

std::optional<int64_t> CQuery::OptionalIntAt(int column) const {
  return IsNull(column) ? std::nullopt : std::optional(IntAt(column));
}

std::optional<double> CQuery::OptionalDoubleAt(int column) const {
  return IsNull(column) ? std::nullopt : std::optional(DoubleAt(column));
}

TextView CQuery::ViewAt(int column) const {
  // As bytes: text that is not well-formed UTF-8 comes back as it was given.
  const auto* const data = static_cast<const char*>(sqlite3_column_blob(_fStatement, column));
  const int size = sqlite3_column_bytes(_fStatement, column);
  if (data == nullptr && size != 0) {
    throw CSqliteFailure(SQLITE_NOMEM, sqlite3_errstr(SQLITE_NOMEM));
  }
  return data == nullptr ? TextView() : TextView(data, static_cast<size_t>(size));
}

// ---- CSqliteConnection

CSqliteConnection::CSqliteConnection(const std::string& path, int flags, CPatience* patience)
    : _fPatience(patience) {
  const int code = sqlite3_open_v2(path.c_str(), &_fDb, flags | SQLITE_OPEN_NOMUTEX, nullptr);
  if (code != SQLITE_OK) {
    const CSqliteFailure failure(_fDb == nullptr ? code : sqlite3_extended_errcode(_fDb),
                                 _fDb == nullptr ? sqlite3_errstr(code) : sqlite3_errmsg(_fDb));
    sqlite3_close_v2(_fDb);
    throw failure;
  }
  sqlite3_extended_result_codes(_fDb, 1);
  // The file may be anything: nothing in it is run, and nothing that it claims is believed to be
  // bigger than a record can be.
  sqlite3_db_config(_fDb, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(_fDb, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_db_config(_fDb, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
  sqlite3_db_config(_fDb, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
  sqlite3_limit(_fDb, SQLITE_LIMIT_LENGTH, kMaxValueBytes);
  sqlite3_limit(_fDb, SQLITE_LIMIT_ATTACHED, 0);
  sqlite3_exec(_fDb, "PRAGMA cell_size_check = ON", nullptr, nullptr, nullptr);
  sqlite3_busy_handler(_fDb, &CSqliteConnection::Busy, this);
  if (_fPatience != nullptr && _fPatience->is_cancelled) {
    sqlite3_progress_handler(_fDb, kStepsBetweenLooks, &CSqliteConnection::Progress, this);
  }
}

CSqliteConnection::~CSqliteConnection() {
  for (sqlite3_stmt* statement : _fStatements) {
    sqlite3_finalize(statement);
  }
  sqlite3_close_v2(_fDb);
}

void CSqliteConnection::Fail() {
  throw CSqliteFailure(sqlite3_extended_errcode(_fDb), sqlite3_errmsg(_fDb));
}

void CSqliteConnection::LimitWaiting(int ms) { _fWaitLeft = std::chrono::milliseconds(ms); }

// One limit for all locks of an operation: SQLite's own handler would begin anew with each, and a
// commit without WAL asks for three.
int CSqliteConnection::Busy(void* self, int count) {
  auto& connection = *static_cast<CSqliteConnection*>(self);
  CPatience unlimited;
  CPatience& patience = connection._fPatience == nullptr ? unlimited : *connection._fPatience;
  // A writer holds its lock for a fraction of a millisecond, so the first tries come soon.
  const auto nap = std::min(
      {connection._fWaitLeft, patience.left, std::chrono::microseconds(count < 3 ? 250 : 2000)});
  if (nap.count() <= 0 || (patience.is_cancelled && patience.is_cancelled())) {
    return 0;
  }
  // On a busy machine a nap takes much longer than was asked for.
  const auto start = std::chrono::steady_clock::now();
  usleep(static_cast<useconds_t>(nap.count()));
  const auto took = std::chrono::duration_cast<std::chrono::microseconds>(
      std::chrono::steady_clock::now() - start);
  connection._fWaitLeft -= took;
  patience.left -= took;
  return 1;
}

int CSqliteConnection::Progress(void* self) {
  const CPatience& patience = *static_cast<CSqliteConnection*>(self)->_fPatience;
  const bool is_to_end =
      !patience.is_saving && patience.is_cancelled() &&
      std::chrono::steady_clock::now() - patience.operation_start > kLongOperation;
  return is_to_end ? 1 : 0;
}

void CSqliteConnection::Execute(const char* sql) {
  const int code = sqlite3_exec(_fDb, sql, nullptr, nullptr, nullptr);
  if (code != SQLITE_OK) {
    Fail();
  }
}

CSqliteConnection::Prepared CSqliteConnection::Prepare(const char* sql) {
  sqlite3_stmt* statement = nullptr;
  const int code = sqlite3_prepare_v3(_fDb, sql, -1, 0, &statement, nullptr);
  if (code != SQLITE_OK) {
    Fail();
  }
  return {statement, &sqlite3_finalize};
}

int64_t CSqliteConnection::IntOf(const char* sql) {
  const Prepared statement = Prepare(sql);
  CQuery query(statement.get());
  return query.Step() ? query.IntAt(0) : 0;
}

Text CSqliteConnection::TextOf(const char* sql) {
  const Prepared statement = Prepare(sql);
  CQuery query(statement.get());
  return query.Step() ? Text(query.ViewAt(0)) : Text();
}

CQuery CSqliteConnection::Use(EStatement statement) {
  sqlite3_stmt*& prepared = _fStatements[static_cast<size_t>(statement)];
  if (prepared == nullptr) {
    const int code = sqlite3_prepare_v3(_fDb, SqlOf(statement), -1, SQLITE_PREPARE_PERSISTENT,
                                        &prepared, nullptr);
    if (code != SQLITE_OK) {
      Fail();
    }
  }
  return CQuery(prepared);
}

void CSqliteConnection::RollBack() noexcept {
  // Some failures have ended the transaction already.
  if (sqlite3_get_autocommit(_fDb) == 0) {
    sqlite3_exec(_fDb, "ROLLBACK", nullptr, nullptr, nullptr);
  }
}

// ---- CWriteTransaction

CWriteTransaction::CWriteTransaction(CSqliteConnection& connection) : _fConnection(connection) {
  connection.RollBack();
  connection.Use(EStatement::kBegin).Run();
}

CWriteTransaction::~CWriteTransaction() {
  if (!_fCommitted) {
    _fConnection.RollBack();
  }
}

void CWriteTransaction::Commit() {
  _fConnection.Use(EStatement::kCommit).Run();
  _fCommitted = true;
}

}  // namespace pysource::standalone::sqlitedb
