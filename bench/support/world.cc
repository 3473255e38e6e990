#include "bench/support/world.h"

#include <cstdlib>
#include <filesystem>

#include "pysource/host/errors.h"
#include "pysource/scopeinfo/records/vocabulary.h"
#include "pysource/standalone/scanner/scanner.h"

namespace pysource::bench {

CTemporaryFolder::CTemporaryFolder()
    : _fPath((std::filesystem::temp_directory_path() / "scopeinfo-bench-XXXXXX").string()) {
  if (mkdtemp(_fPath.data()) == nullptr) {
    throw CValueError("no folder can be made: " + _fPath);
  }
}

CTemporaryFolder::~CTemporaryFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(_fPath, ignored);
}

CBenchWorld::CBenchWorld() {
  scopeinfo::SetDevelopmentRun(false);
  _fOldLoop = velk::SetMainLoop(&fLoop);
  _fAnaMgr.fAnalysisFactory = &_fFactory;
  _fSingletons.fSavableMgr = &_fFiles;
  _fSingletons.fCacheMgr = &_fBuffers;
  _fSingletons.fAnalysisMgr = &_fAnaMgr;
  _fOldSingletons = singleton::SetSingletons(&_fSingletons);
}

CBenchWorld::~CBenchWorld() {
  Close();
  singleton::SetSingletons(_fOldSingletons);
  velk::SetMainLoop(_fOldLoop);
}

void CBenchWorld::Open(const std::string& db_path) {
  Close();
  _fDb = std::make_unique<standalone::CSqliteAnalysisDb>(
      standalone::CSqliteDbOptions{.path = db_path, .workspace_root = ""}, fLocCache);
  _fAnaMgr.fAnalysisDb = _fDb.get();
  _fCache = std::make_unique<scopeinfo::CInfoCache>(&_fAnaMgr, &fLocCache);
  _fAnaMgr.fInfoCache = _fCache.get();
  _fCache->SetScanNames(standalone::ScanNames());
}

void CBenchWorld::Close() {
  if (_fCache != nullptr) {
    _fCache->Clear();
  }
  _fCache.reset();
  _fAnaMgr.fInfoCache = nullptr;
  _fAnaMgr.fAnalysisDb = nullptr;
  _fDb.reset();
}

}  // namespace pysource::bench
