#include "pysource/standalone/files/filemanager.h"

namespace pysource::standalone {

CFileManager::CFileManager(const COpenBuffers& buffers, CDiskTimes& times)
    : _fBuffers(buffers), _fTimes(times) {}
CFileManager::~CFileManager() = default;

DiskTime CFileManager::TimeAsTold(Loc loc) {
  // The text of an open buffer can be older than the file.
  if (const COpenBuffer* const buffer = _fBuffers.Find(loc)) {
    return buffer->GetLastKnownModTime();
  }
  return _fLastAnswer.first == loc ? _fLastAnswer.second : _fTimes.TimeOf(loc);
}

void CFileManager::AddFileLocToWatch(Loc loc) {
  const DiskTime told = TimeAsTold(loc);
  _fLastTold.try_emplace(loc, told);
  if (const auto forgotten = _fForgotten.find(loc);
      forgotten != _fForgotten.end() && forgotten->second == told) {
    _fForgotten.erase(forgotten);
  }
}

void CFileManager::RemoveLocToWatch(Loc loc) {
  if (const auto watched = _fLastTold.find(loc); watched != _fLastTold.end()) {
    // One that is remembered already is remembered with its first time.
    _fForgotten.try_emplace(loc, watched->second);
    _fLastTold.erase(watched);
  }
}

std::vector<DiskTime> CFileManager::GetLastModTimes(const std::vector<Loc>& loc_list,
                                                    bool /*check_disk*/) {
  std::vector<DiskTime> times;
  times.reserve(loc_list.size());
  for (const Loc loc : loc_list) {
    times.push_back(_fTimes.TimeOf(loc));
    _fLastAnswer = {loc, times.back()};
  }
  return times;
}

std::vector<Loc> CFileManager::Forgotten() const {
  std::vector<Loc> locs;
  locs.reserve(_fForgotten.size());
  for (const auto& [loc, told] : _fForgotten) {
    locs.push_back(loc);
  }
  return locs;
}

void CFileManager::CheckWatchedFiles() {
  std::vector<Loc> locs = Forgotten();
  for (const auto& [loc, told] : _fLastTold) {
    locs.push_back(loc);
  }
  Check(locs);
}

void CFileManager::CheckFile(Loc loc) { Check({loc}); }

void CFileManager::Check(const std::vector<Loc>& locs) {
  CLocMtimeDict changed;
  std::vector<std::pair<Loc, bool>> all_changed;
  for (const Loc loc : locs) {
    const DiskTime now = _fTimes.TimeOf(loc);
    const auto watched = _fLastTold.find(loc);
    const auto forgotten = _fForgotten.find(loc);
    const bool has_changed = watched != _fLastTold.end() && watched->second != now;
    if (has_changed) {
      watched->second = now;
      changed.Set(loc, now);
    }
    const bool was_forgotten = forgotten != _fForgotten.end() && forgotten->second != now;
    if (was_forgotten) {
      _fForgotten.erase(forgotten);
    }
    if (has_changed || was_forgotten) {
      all_changed.emplace_back(loc, was_forgotten);
    }
  }
  if (!changed.empty()) {
    emit(kExternalFilesChanged, changed);
  }
  for (const auto& [loc, was_forgotten] : all_changed) {
    if (fOnFileChanged) {
      fOnFileChanged(loc, was_forgotten);
    }
  }
}

}  // namespace pysource::standalone
