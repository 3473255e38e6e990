#include "tests/sqlitedb/failingvfs.h"

#include <new>

namespace pysource::standalone {
namespace {

// SQLite calls with plain functions, so what they share is here; the tests run on one thread.
int gCountdown = 0;
int gCode = SQLITE_OK;
bool gAllLater = false;
bool gFailed = false;
bool gSharedMemory = true;

int Failure() {
  if (gCountdown > 0 && --gCountdown == 0) {
    gFailed = true;
    gCountdown = gAllLater ? 1 : 0;
    return gCode;
  }
  return SQLITE_OK;
}

struct CFile {
  sqlite3_file base;  // first, since SQLite sees no more
  sqlite3_file* Real() { return reinterpret_cast<sqlite3_file*>(this + 1); }
};

CFile& At(sqlite3_file* file) { return *reinterpret_cast<CFile*>(file); }

// Passes a call on to the real file.
template <auto Method, class... Args>
auto Pass(sqlite3_file* file, Args... args) {
  sqlite3_file* const real = At(file).Real();
  return (real->pMethods->*Method)(real, args...);
}

// The same for a call that writes.
template <auto Method, class... Args>
int Write(sqlite3_file* file, Args... args) {
  const int code = Failure();
  return code != SQLITE_OK ? code : Pass<Method, Args...>(file, args...);
}

using M = sqlite3_io_methods;
constexpr sqlite3_io_methods MethodsOf(int version) {
  return {
      .iVersion = version,
      .xClose = &Pass<&M::xClose>,
      .xRead = &Pass<&M::xRead, void*, int, sqlite3_int64>,
      .xWrite = &Write<&M::xWrite, const void*, int, sqlite3_int64>,
      .xTruncate = &Write<&M::xTruncate, sqlite3_int64>,
      .xSync = &Write<&M::xSync, int>,
      .xFileSize = &Pass<&M::xFileSize, sqlite3_int64*>,
      .xLock = &Pass<&M::xLock, int>,
      .xUnlock = &Pass<&M::xUnlock, int>,
      .xCheckReservedLock = &Pass<&M::xCheckReservedLock, int*>,
      .xFileControl = &Pass<&M::xFileControl, int, void*>,
      .xSectorSize = &Pass<&M::xSectorSize>,
      .xDeviceCharacteristics = &Pass<&M::xDeviceCharacteristics>,
      .xShmMap = &Pass<&M::xShmMap, int, int, int, void volatile**>,
      .xShmLock = &Pass<&M::xShmLock, int, int, int>,
      .xShmBarrier = &Pass<&M::xShmBarrier>,
      .xShmUnmap = &Pass<&M::xShmUnmap, int>,
      .xFetch = nullptr,
      .xUnfetch = nullptr,
  };
}
constexpr sqlite3_io_methods kMethods = MethodsOf(2);
constexpr sqlite3_io_methods kWithoutSharedMemory = MethodsOf(1);

int Open(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* out_flags) {
  auto* const real = static_cast<sqlite3_vfs*>(vfs->pAppData);
  auto* const made = new (file) CFile{};
  const int code = real->xOpen(real, name, made->Real(), flags, out_flags);
  // SQLite closes what has methods, even when opening failed.
  if (made->Real()->pMethods != nullptr) {
    made->base.pMethods = gSharedMemory ? &kMethods : &kWithoutSharedMemory;
  }
  return code;
}

}  // namespace

CFailingVfs::CFailingVfs(bool shared_memory) : _fReal(sqlite3_vfs_find(nullptr)), _fVfs(*_fReal) {
  _fVfs.zName = "failing";
  _fVfs.pNext = nullptr;
  _fVfs.szOsFile = static_cast<int>(sizeof(CFile)) + _fReal->szOsFile;
  _fVfs.pAppData = _fReal;
  _fVfs.xOpen = &Open;
  sqlite3_vfs_register(&_fVfs, 1);
  gSharedMemory = shared_memory;
  FailAt(0, SQLITE_OK, false);
}

CFailingVfs::~CFailingVfs() {
  FailAt(0, SQLITE_OK, false);
  sqlite3_vfs_unregister(&_fVfs);
  sqlite3_vfs_register(_fReal, 1);
}

void CFailingVfs::FailAt(int n, int code, bool all_later) {
  gCountdown = n;
  gCode = code;
  gAllLater = all_later;
  gFailed = false;
}

bool CFailingVfs::HasFailed() { return gFailed; }

}  // namespace pysource::standalone
