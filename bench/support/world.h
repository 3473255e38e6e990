// The surroundings of a cache, with everything in them real: files, scanner, SQLite. As the engine
// has it, but for the runner of scans: benchmarks scan beforehand and hand over when they like, and
// open one database after the other under the same locations.
#pragma once

#include <memory>
#include <string>

#include "pysource/host/analysismgr.h"
#include "pysource/host/manualloop.h"
#include "pysource/host/singleton.h"
#include "pysource/scopeinfo/infocache/infocache.h"
#include "pysource/standalone/engine/stubfactory.h"
#include "pysource/standalone/files/filemanager.h"
#include "pysource/standalone/files/openbuffers.h"
#include "pysource/standalone/scanner/importresolver.h"
#include "pysource/standalone/sqlitedb/sqliteanalysisdb.h"

namespace pysource::bench {

// A folder that is deleted, with all in it, at the end.
class CTemporaryFolder {
 public:
  CTemporaryFolder();
  ~CTemporaryFolder();
  CTemporaryFolder(const CTemporaryFolder&) = delete;
  CTemporaryFolder& operator=(const CTemporaryFolder&) = delete;

  std::string PathOf(const std::string& name) const { return _fPath + '/' + name; }
  // A name that no call before has given.
  std::string NewPath() { return PathOf(std::to_string(++_fNames)); }

 private:
  std::string _fPath;
  size_t _fNames = 0;
};

// One at a time in a process. Development checks are off, as in an installed program; assertions
// are on. Idle calls do not run unless fLoop is told to.
class CBenchWorld {
 public:
  CBenchWorld();
  ~CBenchWorld();
  CBenchWorld(const CBenchWorld&) = delete;
  CBenchWorld& operator=(const CBenchWorld&) = delete;

  // A new cache over the database at that path, which is made if it is not there; the cache before
  // is closed.
  void Open(const std::string& db_path);
  // Drops what is unwritten.
  void Close();

  scopeinfo::CInfoCache& Cache() { return *_fCache; }
  standalone::CSqliteAnalysisDb& Db() { return *_fDb; }

  velk::CManualLoop fLoop;
  CLocationCache fLocCache;
  standalone::CFileImportResolver fResolver{fLocCache, {}};
  CTemporaryFolder fFolder;

 private:
  standalone::COpenBuffers _fBuffers;
  standalone::CFileManager _fFiles{_fBuffers};
  standalone::CStubFactory _fFactory{fLocCache};
  CAnalysisManager _fAnaMgr;
  CSingletons _fSingletons;
  CSingletons* _fOldSingletons = nullptr;
  velk::CMainLoop* _fOldLoop = nullptr;
  std::unique_ptr<standalone::CSqliteAnalysisDb> _fDb;
  std::unique_ptr<scopeinfo::CInfoCache> _fCache;
};

}  // namespace pysource::bench
