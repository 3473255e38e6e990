// A whole engine in one object: the info cache with a database on disk, real files, open buffers
// and scans of real source around it.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "pysource/host/analysismgr.h"
#include "pysource/host/location.h"
#include "pysource/host/singleton.h"
#include "pysource/scopeinfo/infocache/infocache.h"
#include "pysource/standalone/engine/scanrunner.h"
#include "pysource/standalone/engine/stubfactory.h"
#include "pysource/standalone/files/disktimes.h"
#include "pysource/standalone/files/filemanager.h"
#include "pysource/standalone/files/openbuffers.h"
#include "pysource/standalone/scanner/importresolver.h"
#include "pysource/standalone/scanner/scanner.h"
#include "pysource/standalone/scanner/sourcefile.h"
#include "pysource/standalone/sqlitedb/sqliteanalysisdb.h"

namespace pysource::standalone {

struct CEngineOptions {
  std::string db_path;
  std::string workspace_root;  // files below it are stored relative to it; empty for none
  std::vector<std::string> import_roots;     // folders where absolute imports are looked for
  size_t threads = 1;                        // that scan; 0 to scan on the main thread
  size_t max_file_bytes = kDefaultMaxBytes;  // larger files are named and left out
  int lock_wait_ms = 50;  // the longest that one database operation waits for other processes
  int scanner_version = kScannerVersion;  // scans of another one are made again
  // Asked while the database works or waits; true ends that early. May be empty.
  std::function<bool()> is_cancelled = nullptr;
  // Called from worker threads when results wait; may be empty for a host that calls RunScans.
  std::function<void()> notify = nullptr;
  scopeinfo::CInfoCacheLimits limits = {};
};

// One at a time in a process: it sets the singletons while it lives and puts the old ones back. The
// main loop must be set before it is made and outlive it. Everything happens on the thread that
// made it, but for the scans.
//
// The destructor writes what is unwritten.
class CEngine {
 public:
  // Throws CValueError with the name of the file when the database cannot be used.
  explicit CEngine(CEngineOptions options);
  ~CEngine();
  CEngine(const CEngine&) = delete;
  CEngine& operator=(const CEngine&) = delete;

  // The merged record, after running what the cache asked for until the answer gets no better. Null
  // when there is no such scope. `between` is called after each piece of work; false gives up.
  scopeinfo::CScopeInfoPtr Ask(Loc loc, TextView scope_name,
                               const std::function<bool()>& between = nullptr);

  // What Ask answers for every scope of the file that is known after its scans, sorted by name,
  // without its stubs. Reads the database once.
  std::vector<std::pair<Text, scopeinfo::CScopeInfoPtr>> AskFile(
      Loc loc, const std::function<bool()>& between = nullptr);

  // Runs all that is wanted to the end, with the cache's housekeeping in between. False if
  // `between` said to stop.
  bool RunScans(const std::function<bool()>& between = nullptr);

  // After a read: whether the database has dropped something since the last call. Readers have then
  // heard of it, and what other files had said of the dropped ones is being scanned again.
  bool HasLostStored();

  // Closes an open buffer; what was not saved is forgotten, by the cache too.
  void CloseBuffer(Loc loc);

  // The stubs that supply further information for the file.
  std::vector<Loc> SecondaryFiles(Loc loc) { return _fFactory.GetSecondaryLocations(loc); }

  CLocationCache& Locations() { return _fLocCache; }
  scopeinfo::CInfoCache& Cache() { return *_fCache; }
  CSqliteAnalysisDb& Database() { return *_fDb; }
  CFileManager& Files() { return _fFiles; }
  CDiskTimes& DiskTimes() { return _fTimes; }
  COpenBuffers& Buffers() { return _fBuffers; }
  CScanRunner& Scans() { return *_fScans; }
  CFileImportResolver& Resolver() { return _fResolver; }
  CAnalysisFactory& Factory() { return _fFactory; }

 private:
  // What was made of the file is of a content that is gone: readers hear of it, and its scans for
  // other files are run again.
  void FileHasChanged(Loc loc, bool forgotten);
  // The same of what others have changed in the database; null for every file.
  void DatabaseHasChanged(const CLocSet* changed_locs);
  // Says of the stubs of these files that the same scopes have changed.
  void TellOfStubs(const CChangedDict& changed);

  CLocationCache _fLocCache;
  CDiskTimes _fTimes;
  CFileImportResolver _fResolver;
  COpenBuffers _fBuffers;
  CFileManager _fFiles{_fBuffers, _fTimes};
  CStubFactory _fFactory;
  CAnalysisManager _fAnaMgr;
  CSingletons _fSingletons;
  CSingletons* _fOldSingletons = nullptr;
  std::unique_ptr<CSqliteAnalysisDb> _fDb;
  std::unique_ptr<scopeinfo::CInfoCache> _fCache;
  std::unique_ptr<CScanRunner> _fScans;
  size_t _fRepairs = 0;  // of the database, that readers have heard of
};

}  // namespace pysource::standalone
