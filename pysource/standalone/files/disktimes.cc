#include "pysource/standalone/files/disktimes.h"

#include <sys/stat.h>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <cerrno>

#include "pysource/scopeinfo/records/vocabulary.h"
#include "pysource/standalone/files/contenttime.h"
#include "pysource/standalone/files/packagemark.h"

namespace pysource::standalone {

// ---- CContentMark

CContentMark CContentMark::Of(const CFileStamp& stamp, DiskTime disk_time) noexcept {
  struct {
    CFileStamp stamp;
    DiskTime disk_time;
  } const sealed{stamp, disk_time};
  static_assert(sizeof sealed == 40);  // no padding among what is hashed
  return {XXH3_64bits(&sealed, sizeof sealed), disk_time};
}

bool CContentMark::Fits(const CFileStamp& stamp) const noexcept {
  return Of(stamp, disk_time).seal == seal;
}

CContentStore::~CContentStore() = default;

// ---- CDiskTimes

CDiskTimes::CDiskTimes() = default;
CDiskTimes::~CDiskTimes() = default;

DiskTime CDiskTimes::TimeOf(Loc loc) {
  const std::optional<std::string> path = PathForLocation(loc);
  if (!path) {
    return scopeinfo::kFileDoesNotExistMtime;
  }
  struct stat status {};
  if (stat(path->c_str(), &status) == 0 && S_ISREG(status.st_mode)) {
    return TimeOf(loc, StampOf(status));
  }
  if (const std::optional<std::string> folder = FolderOfPackageMark(*path)) {
    return IsPackage(*folder) ? kPackageTime : DiskTime{scopeinfo::kFileDoesNotExistMtime};
  }
  return GetFileDiskTime(*path);
}

DiskTime CDiskTimes::TimeOf(Loc loc, const CFileStamp& stamp) {
  if (const std::optional<CContentMark> known = Known(loc); known && known->Fits(stamp)) {
    return known->disk_time;
  }
  const CFileContent content = ReadContent(PathForLocation(loc).value_or(""));
  if (content.is_settled) {
    Note(loc, CContentMark::Of(content.stamp, content.disk_time));
  }
  return content.disk_time;
}

CSourceFile CDiskTimes::Read(Loc loc, size_t max_bytes) {
  CSourceFile file = ReadSourceFile(loc, max_bytes);
  if (file.is_settled) {
    Note(loc, CContentMark::Of(file.stamp, file.disk_mtime));
  }
  return file;
}

std::optional<CContentMark> CDiskTimes::Known(Loc loc) {
  {
    const std::lock_guard lock(_fMutex);
    if (const auto known = _fMarks.find(loc); known != _fMarks.end()) {
      return known->second;
    }
  }
  if (_fStore == nullptr || std::this_thread::get_id() != _fStoreThread) {
    return std::nullopt;
  }
  const std::optional<CContentMark> stored = _fStore->FindContent(loc);
  // Also that there is none: it is asked once.
  Remember(loc, stored.value_or(CContentMark{}));
  return stored;
}

void CDiskTimes::Note(Loc loc, const CContentMark& mark) {
  const std::lock_guard lock(_fMutex);
  CContentMark& known = _fMarks[loc];
  if (known.seal != mark.seal) {
    known = mark;
    _fUnsaved.push_back(loc);
  }
}

void CDiskTimes::Remember(Loc loc, const CContentMark& mark) {
  const std::lock_guard lock(_fMutex);
  // What was found since the store was read is better.
  _fMarks.try_emplace(loc, mark);
}

void CDiskTimes::RememberAll() {
  if (_fStore != nullptr) {
    _fStore->VisitContents([this](Loc loc, const CContentMark& mark) { Remember(loc, mark); });
  }
}

void CDiskTimes::SetStore(CContentStore* store) {
  _fStore = store;
  _fStoreThread = std::this_thread::get_id();
}

void CDiskTimes::Save() {
  std::vector<std::pair<Loc, CContentMark>> marks;
  {
    const std::lock_guard lock(_fMutex);
    for (const Loc loc : std::exchange(_fUnsaved, {})) {
      marks.emplace_back(loc, _fMarks.at(loc));
    }
  }
  if (_fStore != nullptr && !marks.empty()) {
    _fStore->StoreContents(marks);
  }
}

}  // namespace pysource::standalone
