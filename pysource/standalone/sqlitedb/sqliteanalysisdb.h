// The analysis database on SQLite: what scans found, in one file that survives a kill, shared by
// any number of processes.
//
// How the rows lie, and why, stands in schema.h. What a caller should know:
//
//   - A save is one transaction: all of it, or nothing and the answer false. Its reason is then
//     LastError(). The same holds for a clear.
//   - It shares its thread with the keyboard: one operation waits for the locks of other processes
//     for CSqliteDbOptions::lock_wait_ms altogether, and then gives up. LimitWaiting() sets a limit
//     for a piece of work of many operations.
//   - Files inside the workspace root are named relative to it, so a database moves with its
//     workspace.
//   - Every row carries a checksum. Damage that a read or a save meets makes it look at all of the
//     database (soundness.h): the rows of damaged files are dropped, so that their scans are wanted
//     again, or the file is set aside under another name, never deleted, and a new one is begun.
//     Then the operation is made again, and the next CheckForExternalChanges() tells every file.
//     Message() and CriticalLog say what was done. Where it cannot be done now (a lock, a database
//     that may only be read), reads answer as from an empty database.
//   - A file beside it, "-sound" behind its name, says that all of it was looked at, and how it lay
//     there then; EnsureSound() looks again where it has changed since.
//   - A read that fails otherwise (the disk does not answer, a lock is not given) throws
//     CValueError, which names the database: an empty answer would say that nothing is stored.
//   - A database that may only be read is read; saves and clears answer false.
//
// Everything is called on one thread at a time. kExternalDbContentsChanged is emitted by
// CheckForExternalChanges() alone, last.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "pysource/host/analysisdb.h"
#include "pysource/host/location.h"
#include "pysource/host/text.h"
#include "pysource/standalone/files/disktimes.h"
#include "pysource/standalone/sqlitedb/storedrows.h"

namespace pysource::standalone {

struct CSqliteDbOptions {
  std::string path;            // made, with its folder, if it is not there
  std::string workspace_root;  // files below it are stored relative to it; empty: none
  int lock_wait_ms = 50;       // the longest that one operation waits for other processes
  int scanner_version = 0;  // of the scans that are saved; those of another one count as not done
  // Asked while an operation runs or waits; may be empty. True ends waiting and long reads, which
  // then throw CValueError, but no save half-way.
  std::function<bool()> is_cancelled = nullptr;
};

// One call of the service, told when it is done: for tools that show what a question costs.
struct CDbCall {
  const char* operation = "";  // its name
  Loc loc;                     // the file; absent where it is about several
  std::vector<Text> scopes;    // that were asked for
  size_t count = 0;            // rows read or written, names, files
};

class CSqliteAnalysisDb final : public CAnalysisDb, public CContentStore {
 public:
  // Opens the file, or makes it. Throws CValueError, with a message that names the file, when it
  // cannot be used and not be set aside either: a folder in its place, a place that cannot be
  // written, a database of another program.
  CSqliteAnalysisDb(CSqliteDbOptions options, CLocationCache& loc_cache);
  ~CSqliteAnalysisDb() override;

  // The service. Rows come back with their class and import equivalences. Nothing rides along with
  // a read: the rows are those of the given scans and scopes.
  std::vector<Text> ReadScopeNames(Loc loc, TextView primary_scan_name,
                                   DiskTime disk_mtime) override;
  std::vector<CDatabaseRecord> ReadScopeDataRecords(Loc loc, const std::vector<Text>& scan_names,
                                                    const std::vector<Text>& scope_names,
                                                    DiskTime disk_mtime) override;
  CScansDoneDict GetScansDone(const CLocMtimeDict& loc_mtime_dict) override;
  bool SaveDataForFile(Loc loc, const std::vector<CDatabaseRecord>& records, TextView scans_done,
                       DiskTime disk_mtime) override;
  bool ClearInfoForFiles(const std::vector<Loc>& loc_list) override;
  std::vector<CImportEquiv> GetAllImports(const std::vector<Loc>& db_locs,
                                          TextView primary_scan_name) override;
  std::vector<CClassEquiv> GetAllClasses(const std::vector<Loc>& db_locs,
                                         TextView primary_scan_name) override;
  Text CheckForExternalChanges() override;

  // Where the marks of contents are kept. A failure of either is none: the files are read again.
  // Storing waits for no lock longer than for any other operation, and a file that the database
  // does not know otherwise is left out.
  std::optional<CContentMark> FindContent(Loc loc) override;
  void VisitContents(const std::function<void(Loc, const CContentMark&)>& visit) override;
  void StoreContents(const std::vector<std::pair<Loc, CContentMark>>& marks) override;

  // What was repaired or set aside since this was made, for the program to print, a line each;
  // empty when nothing.
  const std::string& Message() const;
  // Why the last save or clear answered false; empty when it answered true.
  const std::string& LastError() const;
  // Why the last save or clear of this file was not made; empty when it was, or when there was
  // none.
  const std::string& RefusalOf(Loc loc) const;
  // Whether the database may only be read.
  bool ReadOnly() const;
  const std::string& Path() const;

  // Called after each call of the service, if set.
  std::function<void(const CDbCall&)> fOnCall;

  // From here on, until the next such call, all operations together wait for locks of other
  // processes no longer than `ms`, and each may take all of it. Saves and clears wait for none
  // unless `do_saves_wait`: their caller makes them again when there is time.
  void LimitWaiting(int ms, bool do_saves_wait = true);
  // Whether the last operation that failed did so because of a lock.
  bool MetLock() const;

  // Calls `work`; the saves and clears that it makes become true together, for other processes and
  // after a kill. Each still answers for itself, and one that answers false is left out. False when
  // what they answered true is undone after all, because the disk is full at the last moment: then
  // LastError() says so, and RefusalOf() each of their files. When no transaction can be begun,
  // each is on its own. What `work` throws undoes them and passes through.
  bool Together(const std::function<void()>& work);

  // Files that claim to be scanned, and of which rows that are for other files were dropped since.
  std::vector<Loc> LostSources();
  // Every file that has a disk time.
  void VisitFiles(const std::function<void(const CStoredFile&)>& visit);
  // The same with the marks of their contents, and those of files without a disk time, then every
  // row that ties files together. Costs as much as there are such files and rows.
  void VisitFilesAndTies(const std::function<void(const CStoredFile&)>& visit_file,
                         const std::function<void(Loc, const CContentMark&)>& visit_content,
                         const std::function<void(const CTie&)>& visit_tie);
  // Every row, those that no read would hand out included, file by file.
  void VisitAllRecords(const std::function<void(const CStoredRow&)>& visit);
  CSqliteDbStats Stats();
  // The database_bytes of these; costs nothing, where the others read all rows.
  uint64_t DatabaseBytes();
  // Looks at every page and row, and repairs what is wrong, unless the file was found sound before
  // and only changed by such as this since.
  void EnsureSound();
  // For a process that has it open for long, in which others may do anything to the file: who comes
  // next is to look at all of it.
  void Distrust();
  // How often something was dropped or set aside; it has grown when answers were made from less
  // than was stored.
  size_t RepairCount() const;
  // Bytes that SQLite holds for this connection, most of it pages of the database.
  size_t MemoryUse() const;
  // SQLite's own check of every page, then of every row; what is wrong, a line each.
  std::vector<Text> Verify();

 private:
  class CImpl;

  void Tell(const char* operation, Loc loc, const std::vector<Text>* scopes, size_t count) const;

  // Ends the connection. Reads then answer nothing, and saves false.
  void _destroy_impl() override;

  const std::unique_ptr<CImpl> _fImpl;
};

}  // namespace pysource::standalone
