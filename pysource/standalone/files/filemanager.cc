#include "pysource/standalone/files/filemanager.h"

#include "pysource/scopeinfo/records/vocabulary.h"
#include "pysource/standalone/scanner/sourcefile.h"

namespace pysource::standalone {
namespace {

DiskTime TimeOnDisk(Loc loc) {
  const auto path = PathForLocation(loc);
  return path ? GetFileDiskTime(*path) : DiskTime{scopeinfo::kFileDoesNotExistMtime};
}

}  // namespace

CFileManager::CFileManager() = default;
CFileManager::~CFileManager() = default;

void CFileManager::AddFileLocToWatch(Loc loc) {
  const DiskTime told = _fLastAnswer.first == loc ? _fLastAnswer.second : TimeOnDisk(loc);
  _fLastTold.try_emplace(loc, told);
}

void CFileManager::RemoveLocToWatch(Loc loc) { _fLastTold.erase(loc); }

std::vector<DiskTime> CFileManager::GetLastModTimes(const std::vector<Loc>& loc_list,
                                                    bool /*check_disk*/) {
  std::vector<DiskTime> times;
  times.reserve(loc_list.size());
  for (const Loc loc : loc_list) {
    times.push_back(TimeOnDisk(loc));
    _fLastAnswer = {loc, times.back()};
  }
  return times;
}

void CFileManager::CheckWatchedFiles() {
  CLocMtimeDict changed;
  for (auto& [loc, told] : _fLastTold) {
    const DiskTime now = TimeOnDisk(loc);
    if (now != told) {
      told = now;
      changed.Set(loc, now);
    }
  }
  if (!changed.empty()) {
    emit(kExternalFilesChanged, changed);
  }
}

void CFileManager::CheckFile(Loc loc) {
  const auto watched = _fLastTold.find(loc);
  if (watched == _fLastTold.end()) {
    return;
  }
  const DiskTime now = TimeOnDisk(loc);
  if (now != watched->second) {
    watched->second = now;
    CLocMtimeDict changed;
    changed.Set(loc, now);
    emit(kExternalFilesChanged, changed);
  }
}

}  // namespace pysource::standalone
