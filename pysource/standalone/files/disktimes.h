// The disk times of files, without reading those that have not changed.
//
// A file's disk time is made from its content (contenttime.h). What is remembered is which stamp
// stood for which disk time when a file was last read: with the same stamp the file is not read
// again. A store keeps that for the next process; nothing rests on it. Without it, or when a row of
// it is lost or damaged, or when files were copied and have other stamps, files are read once more
// and come out with the same times.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"
#include "pysource/standalone/files/filestamp.h"
#include "pysource/standalone/scanner/sourcefile.h"

namespace pysource::standalone {

// That a stamp stood for a disk time. The seal is a hash over both: with any other stamp, and with
// a damaged time, it does not fit.
struct CContentMark {
  uint64_t seal = 0;
  DiskTime disk_time = 0;

  static CContentMark Of(const CFileStamp& stamp, DiskTime disk_time) noexcept;
  bool Fits(const CFileStamp& stamp) const noexcept;
};

// Where marks are kept for the next process; the database implements it. Called on one thread.
class CContentStore {
 public:
  CContentStore() = default;
  CContentStore(const CContentStore&) = delete;
  CContentStore& operator=(const CContentStore&) = delete;
  virtual ~CContentStore();

  // The mark that was stored for the file; absent when there is none, or it cannot be read now.
  virtual std::optional<CContentMark> FindContent(Loc loc) = 0;
  // All of them.
  virtual void VisitContents(const std::function<void(Loc, const CContentMark&)>& visit) = 0;
  // Keeps the marks. May keep none of them, as when the disk is full: the files are read again.
  virtual void StoreContents(const std::vector<std::pair<Loc, CContentMark>>& marks) = 0;
};

// Called from any thread, but for the store, which is asked on the thread that has set it alone: a
// worker that meets a file first reads it. Locations are interned ones, and live as long as this.
class CDiskTimes {
 public:
  CDiskTimes();
  ~CDiskTimes();
  CDiskTimes(const CDiskTimes&) = delete;
  CDiskTimes& operator=(const CDiskTimes&) = delete;

  // The present disk time of the file, or of a folder's mark (packagemark.h). Looks at the disk
  // each time, which costs a microsecond; reads the file if it looks otherwise than when it was
  // last read. kFileDoesNotExistMtime and kFileUnknownOnDiskMtime as in contenttime.h; locations
  // that are no files do not exist.
  DiskTime TimeOf(Loc loc);
  // The same of a file that has just been looked at.
  DiskTime TimeOf(Loc loc, const CFileStamp& stamp);
  // The text of the file, and the disk time of just that text. Throws CValueError (sourcefile.h).
  CSourceFile Read(Loc loc, size_t max_bytes = kDefaultMaxBytes);

  // What the store holds for the file, for a caller that has read it already; a default-made mark
  // for nothing.
  void Remember(Loc loc, const CContentMark& mark);
  // Reads all that the store holds, for a caller that is about to ask for most of it.
  void RememberAll();
  // `store` must outlive this, or be replaced; null for none.
  void SetStore(CContentStore* store);
  // Stores what was found since the last time. Costs nothing when that is nothing.
  void Save();

 private:
  std::optional<CContentMark> Known(Loc loc);
  void Note(Loc loc, const CContentMark& mark);

  std::mutex _fMutex;  // guards all that follows but the store
  std::unordered_map<Loc, CContentMark> _fMarks;
  std::vector<Loc> _fUnsaved;  // files whose marks the store does not have; some twice

  CContentStore* _fStore = nullptr;
  std::thread::id _fStoreThread;
};

}  // namespace pysource::standalone
