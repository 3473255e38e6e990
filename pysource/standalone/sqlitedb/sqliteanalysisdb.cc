#include "pysource/standalone/sqlitedb/sqliteanalysisdb.h"

#include <chrono>
#include <filesystem>
#include <limits>
#include <optional>
#include <system_error>
#include <unordered_map>
#include <utility>

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/host/logger.h"
#include "pysource/host/symbolinfo/infobytes.h"
#include "pysource/standalone/sqlitedb/opening.h"
#include "pysource/standalone/sqlitedb/scansdone.h"
#include "pysource/standalone/sqlitedb/session.h"
#include "pysource/standalone/sqlitedb/soundmark.h"
#include "pysource/standalone/sqlitedb/soundness.h"
#include "pysource/standalone/sqlitedb/wholedatabase.h"

namespace pysource::standalone {

using sqlitedb::CFileRow;
using sqlitedb::CFoundChanges;
using sqlitedb::CSession;
using sqlitedb::CSqliteFailure;
using sqlitedb::CWriteTransaction;
using sqlitedb::EEquivs;
using sqlitedb::EStatement;

namespace {

// How often one operation is made again: after single files were dropped, after a new database was
// begun, and once for another process that does the same.
constexpr int kMaxRepairs = 3;

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

// The file is damaged; the text says so.
class CDamaged : public CValueError {
 public:
  using CValueError::CValueError;
};

}  // namespace

// Which database is open, and what an operation on it is: how long it waits, what becomes of a
// failure, and what is true afterwards. What is done to the tables stands in their own files.
class CSqliteAnalysisDb::CImpl {
 public:
  CImpl(CSqliteDbOptions options, CLocationCache& loc_cache)
      : _fOptions(std::move(options)),
        _fPath(AbsolutePath(_fOptions.path)),
        _fLocCache(loc_cache),
        _fNames(_fOptions.workspace_root) {
    _fPatience.is_cancelled = _fOptions.is_cancelled;
    Connect();
  }

  void Close() {
    _fClosed = true;
    const bool is_sound = _fIsSound && _fSession != nullptr && !ReadOnly() && !Replaced();
    _fSession.reset();
    if (is_sound) {
      sqlitedb::MarkSound(_fPath);
    }
  }

  // ---- The shapes of an operation.

  // Runs a read. Damage is repaired, and the read made again; where it cannot be repaired now, the
  // read finds nothing.
  template <class Result, class Read>
  Result Reading(const char* what, Read read) {
    for (int tries = 0; tries < kMaxRepairs; ++tries) {
      try {
        return Looking<Result>(what, read);
      } catch (const CDamaged& damaged) {
        if (!Repair(damaged.what(), tries > 0)) {
          break;
        }
      }
    }
    return Result();
  }

  // Looks at all of the database, and repairs what is wrong with it, unless it is known to be sound.
  void EnsureSound() {
    if (_fIsSound || _fClosed) {
      return;
    }
    if (!_fSession) {
      Reconnect();
    }
    Repair("", false);
  }
  void Distrust() { _fIsSound = false; }
  size_t RepairCount() const { return _fRepairs; }

  // Runs a read that repairs nothing: damage is an error like any other.
  template <class Result, class Read>
  Result Looking(const char* what, Read read) {
    if (_fClosed) {
      return Result();
    }
    if (!_fSession) {
      Reconnect();
    }
    _fSession->connection->LimitWaiting(Begin(EKind::kRead));
    try {
      return read(*_fSession);
    } catch (const CSqliteFailure& failure) {
      _fMetLock = failure.IsLock();
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
    for (int tries = 0; tries < kMaxRepairs; ++tries) {
      const bool in_batch = IsInBatch();
      try {
        if (in_batch) {
          ChangeInBatch(change);
        } else {
          ChangeAlone(change);
        }
        _fLastError.clear();
        return true;
      } catch (const CSqliteFailure& failure) {
        _fMetLock = failure.IsLock();
        _fLastError = Shown() + ": " + what + ": " + failure.what();
        // What the batch had done before is undone with it, so it cannot go on.
        if (!failure.IsDamage() || !Repair(_fLastError, tries > 0) || in_batch) {
          break;
        }
      } catch (const CValueError& error) {
        _fLastError = error.what();
        break;
      }
    }
    if (_fIsBatch && !IsInBatch()) {
      RefuseBatchFiles();
    }
    return false;
  }

  void LimitWaiting(int ms, bool do_saves_wait) {
    _fIsWaitLimited = true;
    _fPatience.left = std::chrono::milliseconds(ms);
    _fDoSavesWait = do_saves_wait;
  }
  bool MetLock() const { return _fMetLock; }

  // ---- Saves and clears.

  Text Marked(TextView scans_done) const {
    return sqlitedb::MarkedScansDone(scans_done, _fOptions.scanner_version);
  }
  Text ScansDoneIn(TextView stored) const {
    return sqlitedb::ScansDoneBy(stored, _fOptions.scanner_version);
  }
  // Calls `visit` with what the file has of this scanner.
  std::function<void(const CStoredFile&)> OfThisScanner(
      const std::function<void(const CStoredFile&)>& visit) const {
    return [this, &visit](const CStoredFile& stored) {
      CStoredFile file = stored;
      file.scans_done = ScansDoneIn(stored.scans_done);
      file.is_outdated = file.scans_done.empty() && !stored.scans_done.empty();
      visit(file);
    };
  }

  bool SaveFile(Loc loc, const std::vector<CDatabaseRecord>& records, TextView scans_done,
                DiskTime disk_mtime) {
    const bool saved =
        Changing("saving", [&](CSession& db) { Save(db, loc, records, scans_done, disk_mtime); });
    NoteOutcome(loc, saved);
    return saved;
  }

  bool ClearFiles(const std::vector<Loc>& loc_list) {
    const bool cleared = Changing("clearing", [&](CSession& db) { Clear(db, loc_list); });
    for (const Loc loc : loc_list) {
      NoteOutcome(loc, cleared);
    }
    return cleared;
  }

  // What the last save or clear answered is not touched.
  void StoreContents(const std::vector<std::pair<Loc, CContentMark>>& marks) {
    if (ReadOnly()) {
      return;
    }
    const std::string last_error = _fLastError;
    Changing("saving contents", [&](CSession& db) {
      for (const auto& [loc, mark] : marks) {
        if (const auto file = db.files.IdOf(loc)) {
          db.contents.Put(*file, mark);
        }
      }
    });
    _fLastError = last_error;
  }

  bool Together(const std::function<void()>& work) {
    if (_fClosed || _fIsBatch) {
      work();
      return true;
    }
    try {
      if (Replaced()) {
        Reconnect();
      }
      sqlitedb::CSqliteConnection& connection = *_fSession->connection;
      if (!connection.ReadOnly()) {
        connection.LimitWaiting(Begin(EKind::kSave));
        connection.RollBack();
        connection.Use(EStatement::kBegin).Run();
        _fIsBatch = true;
      }
    } catch (const CError&) {
      // Each operation is then on its own, and says what is wrong.
    }
    if (!_fIsBatch) {
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

  // What Verify() says. Of one moment.
  std::vector<Text> Verify(CSession& db) {
    sqlitedb::CSqliteConnection& connection = *db.connection;
    connection.RollBack();
    connection.Execute("BEGIN");
    std::vector<Text> faults = sqlitedb::Verify(db, Shown());
    connection.RollBack();
    return faults;
  }

  CFoundChanges FindChanges() {
    if (Replaced()) {
      Reconnect();
    }
    _fSession->connection->LimitWaiting(Begin(EKind::kRead));
    return _fSession->changes.Find(_fSession->files);
  }

  const std::string& RefusalOf(Loc loc) const {
    static const std::string none;
    const auto refusal = _fRefusals.find(loc);
    return refusal == _fRefusals.end() ? none : refusal->second;
  }
  const std::string& Message() const { return _fMessage; }
  const std::string& LastError() const { return _fLastError; }
  const std::string& Shown() const { return _fOptions.path; }
  bool ReadOnly() const { return _fSession != nullptr && _fSession->connection->ReadOnly(); }
  size_t MemoryUse() const { return _fSession == nullptr ? 0 : sqlitedb::MemoryUse(*_fSession); }

 private:
  // What a transaction has entered into the tables goes, unless it is kept.
  class CUncommitted {
   public:
    explicit CUncommitted(CSession& session) : _fSession(session) {}
    ~CUncommitted() {
      if (!_fKept) {
        _fSession.Undo();
      }
    }
    CUncommitted(const CUncommitted&) = delete;
    CUncommitted& operator=(const CUncommitted&) = delete;
    void Keep() {
      _fKept = true;
      _fSession.Keep();
    }

   private:
    CSession& _fSession;
    bool _fKept = false;
  };

  template <class Change>
  void ChangeAlone(Change change) {
    if (Replaced()) {
      Reconnect();
    }
    sqlitedb::CSqliteConnection& connection = *_fSession->connection;
    if (connection.ReadOnly()) {
      throw CSqliteFailure(SQLITE_READONLY, "the database can only be read");
    }
    connection.LimitWaiting(Begin(EKind::kSave));
    CUncommitted uncommitted(*_fSession);
    CWriteTransaction transaction(connection);
    change(*_fSession);
    transaction.Commit();
    uncommitted.Keep();
  }

  template <class Change>
  void ChangeInBatch(Change change) {
    sqlitedb::CSqliteConnection& connection = *_fSession->connection;
    CUncommitted uncommitted(*_fSession);
    connection.Execute("SAVEPOINT one");
    try {
      change(*_fSession);
    } catch (...) {
      if (IsInBatch()) {
        connection.Execute("ROLLBACK TO one");
        connection.Execute("RELEASE one");
      }
      throw;
    }
    connection.Execute("RELEASE one");
    uncommitted.Keep();
  }

  static void Save(CSession& db, Loc loc, const std::vector<CDatabaseRecord>& records,
                   TextView scans_done, DiskTime disk_mtime) {
    const CFileRow file = db.files.Find(loc);
    const bool same_time = file.disk_time && *file.disk_time == disk_mtime;
    if (!same_time && file.place != 0) {
      DropRecords(db, file);
    }
    if (!scans_done.empty() && (!same_time || file.scans_done.value_or("").empty())) {
      db.lost.Forget(file.id);
    }
    // Without rows, the place is free: the next file may get it.
    sqlitedb::CFileState state = file;
    state.disk_time = disk_mtime;
    state.scans_done = scans_done;
    if (!same_time) {
      state.tally = state.foreign_tally = 0;
      state.place = records.empty() ? 0 : file.place;
    }
    const bool replacing = same_time && file.place != 0;
    if (!records.empty() && state.place == 0) {
      state.place = db.records.NewPlace();
    }
    if (state == file && records.empty()) {
      return;
    }
    if (!file.known) {
      db.files.Reserve(loc, file);
    }
    Loc source;
    for (const CDatabaseRecord& record : records) {
      Assert(record.for_loc == loc);
      if (record.scanned_loc && record.scanned_loc != loc && record.scanned_loc != source) {
        source = record.scanned_loc;
        db.lost.Forget(db.files.IdToStore(source), file.id);
      }
    }
    sqlitedb::CTallies tallies{state.tally, state.foreign_tally};
    db.records.Put(loc, file.id, state.place, replacing, records, disk_mtime, tallies);
    state.tally = tallies.all;
    state.foreign_tally = tallies.foreign;
    if (!(state == file)) {
      db.files.Put(loc, file, state);
    }
    db.changes.Add(file.id);
  }

  static void Clear(CSession& db, const std::vector<Loc>& loc_list) {
    for (const Loc loc : loc_list) {
      const CFileRow file = db.files.Find(loc);
      if (!file.known || (!file.disk_time && file.place == 0)) {
        continue;
      }
      if (file.place != 0) {
        DropRecords(db, file);
      }
      db.lost.Forget(file.id);
      db.files.Put(loc, file, sqlitedb::CFileState());
      db.changes.Add(file.id);
    }
  }

  static void DropRecords(CSession& db, const CFileRow& file) {
    db.lost.Note(file.id, file.place);
    db.records.Drop(file.place);
  }

  void NoteOutcome(Loc loc, bool done) {
    if (!done) {
      _fRefusals[loc] = _fLastError;
      return;
    }
    _fRefusals.erase(loc);
    if (_fIsBatch) {
      _fBatchFiles.push_back(loc);
    }
  }

  // ---- The batch.

  // Some failures end a transaction, or the whole connection.
  bool IsInBatch() const {
    return _fIsBatch && _fSession && sqlite3_get_autocommit(_fSession->connection->Handle()) == 0;
  }

  bool EndBatch(bool commit) {
    bool committed = false;
    if (IsInBatch()) {
      try {
        if (commit) {
          _fSession->connection->Use(EStatement::kCommit).Run();
          committed = true;
        } else {
          _fLastError = Shown() + ": saving: what was to be saved with it failed";
        }
      } catch (const CSqliteFailure& failure) {
        _fLastError = Shown() + ": saving: " + failure.what();
      }
      if (!committed) {
        RefuseBatchFiles();
      }
      _fSession->connection->RollBack();
    }
    _fIsBatch = false;
    _fBatchFiles.clear();
    if (!committed && _fSession) {
      _fSession->Forget();
    }
    return committed;
  }

  // What the batch has written is undone. Not so what comes after a batch that ended by itself.
  void RefuseBatchFiles() {
    for (const Loc loc : _fBatchFiles) {
      _fRefusals[loc] = _fLastError;
    }
    _fBatchFiles.clear();
  }

  // ---- The connection.

  enum class EKind { kRead, kSave };  // a repair is what a read needs

  // An operation begins. Returns how long it waits for locks; _fPatience limits it further.
  int Begin(EKind kind) {
    _fPatience.is_saving = kind == EKind::kSave || _fIsBatch;
    _fPatience.operation_start = std::chrono::steady_clock::now();
    if (kind == EKind::kSave && !_fDoSavesWait) {
      return 0;
    }
    return _fIsWaitLimited ? std::numeric_limits<int>::max() : _fOptions.lock_wait_ms;
  }

  void Connect() {
    const bool is_marked = sqlitedb::IsMarkedSound(_fPath);
    sqlitedb::COpenDatabase opened = sqlitedb::OpenDatabase(_fPath, Shown(), &_fPatience);
    AddMessage(opened.message);
    _fRepairs += opened.message.empty() ? 0 : 1;
    _fIsSound = is_marked || opened.is_new;
    try {
      _fSession = std::make_unique<CSession>(std::move(opened), _fNames, _fLocCache, Shown());
    } catch (const CSqliteFailure& failure) {
      const std::string reason = Shown() + ": " + failure.what();
      if (!failure.IsDamage()) {
        throw CValueError(reason);
      }
      PutAside(reason);
      Connect();
    }
  }

  // The file, which is not open any more.
  void PutAside(const std::string& reason) {
    const std::string aside = sqlitedb::SetAside(_fPath, Shown());
    const std::string message =
        reason + "; it was set aside as " + aside + " and a new database was begun";
    AddMessage(message);
    CriticalLog("%s", message);
    ++_fRepairs;
  }

  // Opens what is there now. What was known of the old file does not hold for the new one.
  void Reconnect() {
    _fSession.reset();
    Connect();
    _fSession->changes.LoseTrack();
  }

  // Whether another file than the open one, or none, is where the database was opened.
  bool Replaced() const {
    return !_fSession || !(sqlitedb::IdentityOf(_fPath) == _fSession->identity);
  }

  // Looks at all of the database, drops what is wrong with single files, and begins anew where that
  // is not enough, or `is_hopeless`. False, and a line that says so, where that cannot be done now.
  // `reason` is how it was met; empty where nothing was met yet.
  bool Repair(const std::string& reason, bool is_hopeless) {
    try {
      if (Replaced()) {
        Reconnect();
        return true;
      }
      sqlitedb::CSoundness found;
      if (!is_hopeless) {
        found = CheckAndDrop();
      }
      if (is_hopeless || found.is_lost) {
        BeginAnew(found.faults.empty() ? reason : found.faults.front());
      } else if (!found.faults.empty()) {
        ++_fRepairs;
        for (const Text& fault : found.faults) {
          AddMessage(fault);
          CriticalLog("%s", fault);
        }
      }
      _fIsSound = true;
      return true;
    } catch (const CSqliteFailure& failure) {
      if (failure.IsInterrupt()) {
        throw CValueError(Shown() + ": " + failure.what());  // there was no time to look
      }
      return TellUnrepaired(reason, failure.what());
    } catch (const CError& error) {
      return TellUnrepaired(reason, error.what());
    }
  }

  // False, for who could not.
  bool TellUnrepaired(const std::string& reason, const std::string& why) {
    {
      const std::string text =
          reason.empty() ? why : reason + "; it cannot be repaired now: " + why;
      if (_fUnrepaired != text) {
        CriticalLog("%s", text);
      }
      _fUnrepaired = text;
      return false;
    }
  }

  sqlitedb::CSoundness CheckAndDrop() {
    sqlitedb::CSqliteConnection& connection = *_fSession->connection;
    connection.RollBack();
    _fSession->Undo();
    const bool can_drop = !connection.ReadOnly();
    connection.LimitWaiting(Begin(EKind::kRead));
    connection.Execute(can_drop ? "BEGIN IMMEDIATE" : "BEGIN");
    try {
      sqlitedb::CSoundness found = sqlitedb::CheckSoundness(*_fSession, Shown());
      if (found.faults.empty() || found.is_lost || !can_drop) {
        connection.RollBack();
        found.is_lost = !found.faults.empty();
      } else {
        sqlitedb::DropUnsound(*_fSession, found);
        connection.Execute("COMMIT");
        _fSession->Forget();
      }
      return found;
    } catch (...) {
      connection.RollBack();
      _fSession->Undo();
      throw;
    }
  }

  // Sets the damaged database aside and begins a new one, unless another process did it already.
  void BeginAnew(const std::string& reason) {
    const bool replaced = Replaced();
    if (!replaced && ReadOnly()) {
      throw CValueError(Shown() + ": the database can only be read");
    }
    _fSession.reset();
    if (!replaced) {
      PutAside(reason);
    }
    Reconnect();
  }

  void AddMessage(const std::string& message) {
    if (!message.empty()) {
      _fMessage += (_fMessage.empty() ? "" : "\n") + message;
    }
  }

  const CSqliteDbOptions _fOptions;
  const std::string _fPath;  // absolute
  CLocationCache& _fLocCache;
  const sqlitedb::CFileNames _fNames;

  sqlitedb::CPatience _fPatience;  // outlives the connections
  bool _fIsWaitLimited = false;
  bool _fDoSavesWait = true;
  bool _fMetLock = false;
  bool _fClosed = false;
  bool _fIsSound = false;               // nothing is wrong with what lies there, as far as is known
  size_t _fRepairs = 0;                 // how often something was dropped or set aside
  std::string _fUnrepaired;             // why it could not be; was told
  std::unique_ptr<CSession> _fSession;  // null after a failed attempt to connect again
  std::string _fMessage;
  std::string _fLastError;
  std::unordered_map<Loc, std::string> _fRefusals;  // by file, until it is written after all
  bool _fIsBatch = false;
  std::vector<Loc> _fBatchFiles;  // that the batch has written
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
  auto names = _fImpl->Reading<std::vector<Text>>("reading scope names", [&](CSession& db) {
    return db.records.ReadScopeNames(loc, primary_scan_name, disk_mtime);
  });
  Tell("ReadScopeNames", loc, nullptr, names.size());
  return names;
}

std::vector<CDatabaseRecord> CSqliteAnalysisDb::ReadScopeDataRecords(
    Loc loc, const std::vector<Text>& scan_names, const std::vector<Text>& scope_names,
    DiskTime disk_mtime) {
  auto records = _fImpl->Reading<std::vector<CDatabaseRecord>>(
      "reading records",
      [&](CSession& db) { return db.records.Read(loc, scan_names, scope_names, disk_mtime); });
  Tell("ReadScopeDataRecords", loc, &scope_names, records.size());
  return records;
}

CScansDoneDict CSqliteAnalysisDb::GetScansDone(const CLocMtimeDict& loc_mtime_dict) {
  auto scans_done = _fImpl->Reading<CScansDoneDict>("reading scans done", [&](CSession& db) {
    std::vector<Loc> locs;
    locs.reserve(loc_mtime_dict.size());
    for (const auto& [loc, mtime] : loc_mtime_dict) {
      locs.push_back(loc);
    }
    std::vector<std::optional<Text>> found(locs.size());
    db.files.FindEach(locs, [&](size_t index, const CFileRow& row) {
      if (row.disk_time && *row.disk_time == *loc_mtime_dict.Find(locs[index])) {
        found[index] = _fImpl->ScansDoneIn(row.scans_done.value_or(Text()));
      }
    });
    CScansDoneDict result;
    for (size_t i = 0; i < locs.size(); ++i) {
      if (found[i]) {
        result.Set(locs[i], std::move(*found[i]));
      }
    }
    return result;
  });
  Tell("GetScansDone", loc_mtime_dict.size() == 1 ? (*loc_mtime_dict.begin()).first : Loc(),
       nullptr, scans_done.size());
  return scans_done;
}

bool CSqliteAnalysisDb::SaveDataForFile(Loc loc, const std::vector<CDatabaseRecord>& records,
                                        TextView scans_done, DiskTime disk_mtime) {
  const bool saved = _fImpl->SaveFile(loc, records, _fImpl->Marked(scans_done), disk_mtime);
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
  auto all_imports =
      _fImpl->Reading<std::vector<CImportEquiv>>("reading imports", [&](CSession& db) {
        std::vector<CImportEquiv> imports;
        db.records.ReadEquivs(EEquivs::kImports, db_locs, primary_scan_name,
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
  auto all_classes =
      _fImpl->Reading<std::vector<CClassEquiv>>("reading classes", [&](CSession& db) {
        std::vector<CClassEquiv> classes;
        db.records.ReadEquivs(EEquivs::kClasses, db_locs, primary_scan_name,
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
  const auto found = _fImpl->Reading<CFoundChanges>(
      "looking for changes", [&](CSession&) { return _fImpl->FindChanges(); });
  if (found.everything) {
    emit(kExternalDbContentsChanged, nullptr);
  } else if (!found.files.empty()) {
    emit(kExternalDbContentsChanged, &found.files);
  }
  return found.report;
}

std::optional<CContentMark> CSqliteAnalysisDb::FindContent(Loc loc) {
  try {
    return _fImpl->Looking<std::optional<CContentMark>>("reading contents", [&](CSession& db) {
      const auto file = db.files.IdOf(loc);
      return file ? db.contents.Find(*file) : std::nullopt;
    });
  } catch (const CValueError&) {
    // What is wrong with the database, the reads that an answer rests on say.
    return std::nullopt;
  }
}

void CSqliteAnalysisDb::VisitContents(const std::function<void(Loc, const CContentMark&)>& visit) {
  _fImpl->Looking<bool>("reading all contents", [&](CSession& db) {
    sqlitedb::VisitContents(db, visit);
    return true;
  });
}

void CSqliteAnalysisDb::StoreContents(const std::vector<std::pair<Loc, CContentMark>>& marks) {
  _fImpl->StoreContents(marks);
}

const std::string& CSqliteAnalysisDb::Message() const { return _fImpl->Message(); }
const std::string& CSqliteAnalysisDb::LastError() const { return _fImpl->LastError(); }

const std::string& CSqliteAnalysisDb::RefusalOf(Loc loc) const { return _fImpl->RefusalOf(loc); }
const std::string& CSqliteAnalysisDb::Path() const { return _fImpl->Shown(); }
bool CSqliteAnalysisDb::ReadOnly() const { return _fImpl->ReadOnly(); }

void CSqliteAnalysisDb::LimitWaiting(int ms, bool do_saves_wait) {
  _fImpl->LimitWaiting(ms, do_saves_wait);
}
bool CSqliteAnalysisDb::MetLock() const { return _fImpl->MetLock(); }

bool CSqliteAnalysisDb::Together(const std::function<void()>& work) {
  return _fImpl->Together(work);
}

std::vector<Loc> CSqliteAnalysisDb::LostSources() {
  return _fImpl->Looking<std::vector<Loc>>("reading lost sources",
                                           [](CSession& db) { return db.lost.Sources(db.files); });
}

void CSqliteAnalysisDb::VisitFiles(const std::function<void(const CStoredFile&)>& visit) {
  _fImpl->Looking<bool>("reading all files", [&](CSession& db) {
    sqlitedb::VisitFiles(db, _fImpl->OfThisScanner(visit));
    return true;
  });
}

void CSqliteAnalysisDb::VisitFilesAndTies(
    const std::function<void(const CStoredFile&)>& visit_file,
    const std::function<void(Loc, const CContentMark&)>& visit_content,
    const std::function<void(const CTie&)>& visit_tie) {
  _fImpl->Looking<bool>("reading all files and ties", [&](CSession& db) {
    sqlitedb::VisitFilesAndTies(db, _fImpl->OfThisScanner(visit_file), visit_content, visit_tie);
    return true;
  });
}

void CSqliteAnalysisDb::VisitAllRecords(const std::function<void(const CStoredRow&)>& visit) {
  _fImpl->Looking<bool>("reading all records", [&](CSession& db) {
    sqlitedb::VisitAllRecords(db, visit);
    return true;
  });
}

size_t CSqliteAnalysisDb::MemoryUse() const { return _fImpl->MemoryUse(); }

CSqliteDbStats CSqliteAnalysisDb::Stats() {
  return _fImpl->Looking<CSqliteDbStats>("counting", sqlitedb::StatsOf);
}

void CSqliteAnalysisDb::EnsureSound() { _fImpl->EnsureSound(); }
void CSqliteAnalysisDb::Distrust() { _fImpl->Distrust(); }
size_t CSqliteAnalysisDb::RepairCount() const { return _fImpl->RepairCount(); }

uint64_t CSqliteAnalysisDb::DatabaseBytes() {
  return _fImpl->Looking<uint64_t>("counting pages", sqlitedb::DatabaseBytes);
}

std::vector<Text> CSqliteAnalysisDb::Verify() {
  return _fImpl->Looking<std::vector<Text>>("verifying",
                                            [&](CSession& db) { return _fImpl->Verify(db); });
}

}  // namespace pysource::standalone
