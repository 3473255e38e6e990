// The services of a cache, all of them real: files, scanner, SQLite. The same as in the engine, but
// without its scan runner: benchmarks scan beforehand, add the results when they want to, and open
// one database after the other with the same locations.
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

// A folder that is deleted, with everything in it, by the destructor.
class CTemporaryFolder {
 public:
  CTemporaryFolder();
  ~CTemporaryFolder();
  CTemporaryFolder(const CTemporaryFolder&) = delete;
  CTemporaryFolder& operator=(const CTemporaryFolder&) = delete;

  std::string PathOf(const std::string& name) const { return _fPath + '/' + name; }
  // A path in the folder that no earlier call has returned.
  std::string NewPath() { return PathOf(std::to_string(++_fNames)); }

 private:
  std::string _fPath;
  size_t _fNames = 0;
};

// One cache with its services. Development checks are off, as in an installed program; assertions
// are on. Idle calls run only when a benchmark runs fLoop.
// REQUIRES: only one exists at a time in a process.
class CBenchWorld {
 public:
  CBenchWorld();
  ~CBenchWorld();
  CBenchWorld(const CBenchWorld&) = delete;
  CBenchWorld& operator=(const CBenchWorld&) = delete;

  // Closes the present cache and makes a new one over the database at that path, which is created
  // if it does not exist.
  void Open(const std::string& db_path);
  // Discards what is unwritten.
  void Close();

  scopeinfo::CInfoCache& Cache() { return *_fCache; }
  standalone::CSqliteAnalysisDb& Db() { return *_fDb; }

  velk::CManualLoop fLoop;
  CLocationCache fLocCache;
  standalone::CDiskTimes fTimes;
  standalone::CFileImportResolver fResolver{fLocCache, fTimes, {}};
  CTemporaryFolder fFolder;

 private:
  standalone::COpenBuffers _fBuffers;
  standalone::CFileManager _fFiles{_fBuffers, fTimes};
  standalone::CStubFactory _fFactory{fLocCache};
  CAnalysisManager _fAnaMgr;
  CSingletons _fSingletons;
  CSingletons* _fOldSingletons = nullptr;
  velk::CMainLoop* _fOldLoop = nullptr;
  std::unique_ptr<standalone::CSqliteAnalysisDb> _fDb;
  std::unique_ptr<scopeinfo::CInfoCache> _fCache;
};

}  // namespace pysource::bench
