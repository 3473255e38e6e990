// What the file system says of a file's state without reading it, and when that can be trusted.
//
// The time of change (ctime) is what the trust rests on: the system sets it at each change and no
// program can set it back, while the time of modification can be any time. But the clock of a file
// system has ticks: a file that is written twice within one has one stamp for two contents. So a
// stamp stands for what was read under it only if the tick of its last change was over before the
// reading began. Version control systems have the same rule for their indexes.
#pragma once

#include <sys/stat.h>

#include <cstdint>

namespace pysource::standalone {

struct CFileStamp {
  int64_t mtime_ns = 0;  // since the epoch; a file can be dated to any time
  int64_t ctime_ns = 0;
  uint64_t size = 0;
  uint64_t inode = 0;
  friend bool operator==(const CFileStamp&, const CFileStamp&) = default;
};

CFileStamp StampOf(const struct stat& status) noexcept;

// The clock that file systems of this machine date changes by, in nanoseconds since the epoch.
int64_t FileClock() noexcept;

// Whether a file that was read after `read_at` (FileClock), and has this stamp since before then,
// cannot change any more without getting another one.
bool IsSettled(const CFileStamp& stamp, int64_t read_at) noexcept;

}  // namespace pysource::standalone
