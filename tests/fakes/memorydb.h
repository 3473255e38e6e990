// The analysis database in memory: the whole service, written as simply as possible, to replace the
// real one in tests and to be the model with which the real one is compared.
//
// A store is the content of the disk; each CMemoryAnalysisDb is a process that has it open. Two of
// them on one store see each other's changes, and a new one on an old store is a restart. Like the
// real database it keeps one scopes-seen entry for each file and returns copies. It leaves out the
// failures of what is below it: locks, damage, full disks. For those, tests tell it to fail.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <tuple>
#include <vector>

#include "pysource/host/analysisdb.h"

namespace pysource::fakes {

// Scope, scan, URL of the scanned file, scanned scope: the key of a row within its file. Rows are
// returned in the order of these keys.
using CMemoryDbRowKey =
    std::tuple<Text, std::optional<Text>, std::optional<Text>, std::optional<Text>>;

struct CMemoryDbFile {
  DiskTime disk_time = 0;
  Text scans_done;
  std::map<CMemoryDbRowKey, CDatabaseRecord> rows;
};

struct CMemoryDbStore {
  std::map<Loc, CMemoryDbFile> files;
  // Every change: of which file, by which database object (whose address is only compared).
  std::vector<std::pair<Loc, const void*>> changes;
};

class CMemoryAnalysisDb final : public CAnalysisDb {
 public:
  explicit CMemoryAnalysisDb(
      std::shared_ptr<CMemoryDbStore> store = std::make_shared<CMemoryDbStore>());
  ~CMemoryAnalysisDb() override;

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

  // The operations called, in order, one line each: the name, the URL and what distinguishes the
  // call from others, as in "SaveDataForFile file:///a.py 3 records ':names' 2.0".
  std::vector<Text> fCalls;
  // The number of calls of that operation in fCalls.
  size_t CallCount(TextView operation) const;

  // How many of the next saves, or clears, return false and change nothing.
  int fFailSaves = 0;
  int fFailClears = 0;
  // How many reads (of any kind) throw CValueError, after fGoodReads successful ones.
  int fFailReads = 0;
  int fGoodReads = 0;
  // Called at the start of each operation: a database may emit signals while it works.
  std::function<void()> fOnCall = [] {};
  // The next check finds that the database was replaced, and reports every file as changed.
  bool fReplaced = false;

  const std::shared_ptr<CMemoryDbStore> fStore;

 private:
  // The file, if it has data for that time.
  const CMemoryDbFile* FileAt(Loc loc, DiskTime disk_mtime) const;
  void NoteRead(Text call);

  size_t _fChangesSeen;
};

}  // namespace pysource::fakes
