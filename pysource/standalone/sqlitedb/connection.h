// A thin layer over SQLite's C interface: what it returns as codes is thrown, what must be given
// back gives itself back, and statements are prepared once.
#pragma once

#include <sqlite3.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pysource/host/errors.h"
#include "pysource/host/text.h"

namespace pysource::standalone::sqlitedb {

// Something that SQLite refused. Does not leave this folder: callers of the database get a false
// answer, or a CValueError.
class CSqliteFailure : public CError {
 public:
  CSqliteFailure(int code, const std::string& text) : CError(text), fCode(code) {}

  // Whether the file itself is bad, so that trying again cannot help.
  bool IsDamage() const;
  // Whether another process had a lock for longer than was waited.
  bool IsLock() const { return (fCode & 0xFF) == SQLITE_BUSY; }
  // Whether CPatience::is_cancelled ended it.
  bool IsInterrupt() const { return (fCode & 0xFF) == SQLITE_INTERRUPT; }

  const int fCode;  // SQLite's result code, extended
};

// For a row that is not what a save has written: a failure like any other damage.
[[noreturn]] void ThrowDamagedRow(const std::string& what);

// One execution of a statement: bind, step, read. Ends it (and lets go of its locks) when it goes.
class CQuery {
 public:
  explicit CQuery(sqlite3_stmt* statement) : _fStatement(statement) {}
  ~CQuery();
  CQuery(const CQuery&) = delete;
  CQuery& operator=(const CQuery&) = delete;

  // The parameters in order. Text and bytes are not copied: they stay where they are until the
  // query ends or steps no more.
  CQuery& Int(int64_t value);
  CQuery& Double(double value);
  CQuery& TextOf(TextView value);
  CQuery& BytesOf(BytesView value);
  CQuery& Null();

  // Goes to the next row; false when there is none.
  bool Step();
  // For a statement that gives no rows. Leaves it ready to be bound again.
  void Run();

  bool IsNull(int column) const { return Type(column) == SQLITE_NULL; }
  int Type(int column) const { return sqlite3_column_type(_fStatement, column); }
  int64_t IntAt(int column) const { return sqlite3_column_int64(_fStatement, column); }
  double DoubleAt(int column) const { return sqlite3_column_double(_fStatement, column); }
  std::optional<int64_t> OptionalIntAt(int column) const;
  std::optional<double> OptionalDoubleAt(int column) const;
  // Text or bytes; empty for NULL. Good until the next step.
  TextView ViewAt(int column) const;

 private:
  [[noreturn]] void Fail();
  void Bind(int code);

  sqlite3_stmt* _fStatement;
  int _fBound = 0;
};

// "[1,2,3]", which json_each makes rows of: one statement for any number of values.
Text JsonArray(const std::vector<int64_t>& values);

// Rows that kPutRecords stores at once. A statement costs as much to begin and to end as its row:
// eight of them take two thirds of the time of eight single ones, and sixteen no less than that.
inline constexpr size_t kRowsAtOnce = 8;

// The statements that a connection keeps prepared.
enum class EStatement {
  kBegin,
  kCommit,
  kFileById,
  kFilesByIds,
  kAddFile,
  kSetFile,
  kLastRecordId,
  kRecordKeys,
  kPutRecord,
  kPutRecords,
  kDropRecords,
  kLostSources,
  kNoteLost,
  kLostOf,
  kForgetLost,
  kContentOf,
  kPutContent,
  kLogChange,
  kCutChanges,
  kScopeNames,
  kRecordsAll,
  kRecordsOne,
  kRecordsMany,
  kEquivs,
  kFilesTally,
  kScans,
  kAddScan,
  kDataVersion,
  kLastChange,
  kChangesSince,
  kCount
};

// How long several operations, on one connection or on one after the other, go on.
struct CPatience {
  // Of waiting for locks.
  std::chrono::microseconds left = std::chrono::microseconds::max();

  // Asked while statements run and while locks are waited for; may be empty. True ends the waiting,
  // and a statement of an operation that has taken long: short ones are let through, so that what
  // remains to be done can be done.
  std::function<bool()> is_cancelled = nullptr;
  bool is_saving = false;  // such an operation is not ended half-way
  std::chrono::steady_clock::time_point operation_start{};
};

class CSqliteConnection {
 public:
  // Throws CSqliteFailure. `flags` are those of sqlite3_open_v2. Waiting for locks of other processes
  // is taken from `patience`, which must outlive this; null: it is not limited by that.
  CSqliteConnection(const std::string& path, int flags, CPatience* patience);
  ~CSqliteConnection();
  CSqliteConnection(const CSqliteConnection&) = delete;
  CSqliteConnection& operator=(const CSqliteConnection&) = delete;

  // From here on, waiting for locks of other processes takes no more than `ms` altogether.
  void LimitWaiting(int ms);

  void Execute(const char* sql);
  // The first column of the first row; 0 when there is none.
  int64_t IntOf(const char* sql);
  Text TextOf(const char* sql);

  // The statement, prepared on first use. One execution of it at a time.
  CQuery Use(EStatement statement);
  // A statement that is not kept; it ends with the pointer.
  using Prepared = std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)>;
  Prepared Prepare(const char* sql);

  // Ends a transaction that is still open, without it. Never throws.
  void RollBack() noexcept;

  sqlite3* Handle() { return _fDb; }
  int64_t LastInsertId() const { return sqlite3_last_insert_rowid(_fDb); }
  bool ReadOnly() const { return sqlite3_db_readonly(_fDb, "main") == 1; }

 private:
  static int Busy(void* self, int count);
  static int Progress(void* self);
  [[noreturn]] void Fail();

  sqlite3* _fDb = nullptr;
  CPatience* const _fPatience;
  std::chrono::microseconds _fWaitLeft{};
  std::array<sqlite3_stmt*, static_cast<size_t>(EStatement::kCount)> _fStatements{};
};

// A transaction that begins as a writing one, so that it never has to become one half-way, which
// fails at once when another process has written in the meantime. Undone unless committed.
class CWriteTransaction {
 public:
  explicit CWriteTransaction(CSqliteConnection& connection);
  ~CWriteTransaction();
  CWriteTransaction(const CWriteTransaction&) = delete;
  CWriteTransaction& operator=(const CWriteTransaction&) = delete;
  void Commit();

 private:
  CSqliteConnection& _fConnection;
  bool _fCommitted = false;
};

}  // namespace pysource::standalone::sqlitedb
