#include "pysource/standalone/files/contenttime.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include <array>
#include <cerrno>

#include "pysource/scopeinfo/records/vocabulary.h"

namespace pysource::standalone {
namespace {

// A file that changes each time it is read is read so often before its last content counts.
constexpr int kMaxReads = 4;

DiskTime TimeOfHash(XXH64_hash_t hash) noexcept {
  return static_cast<DiskTime>((uint64_t{1} << 52) | (hash >> 12) | 1);
}

DiskTime TimeOfStamp(const CFileStamp& stamp) noexcept {
  // Another seed, so that it is not the number of a file that holds such bytes.
  return TimeOfHash(XXH3_64bits_withSeed(&stamp, sizeof stamp, 1));
}

DiskTime TimeOfMissing(int error) noexcept {
  return error == ENOENT || error == ENOTDIR ? scopeinfo::kFileDoesNotExistMtime
                                             : scopeinfo::kFileUnknownOnDiskMtime;
}

class CFile {
 public:
  // Without O_NONBLOCK, opening a pipe would wait for a writer.
  explicit CFile(const std::string& path)
      : _fFd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
  ~CFile() {
    if (_fFd >= 0) {
      close(_fFd);
    }
  }
  CFile(const CFile&) = delete;
  CFile& operator=(const CFile&) = delete;

  bool IsOpen() const { return _fFd >= 0; }
  bool Status(struct stat& status) const { return fstat(_fFd, &status) == 0; }

  // The number of all that the file holds; false when it cannot be read to its end.
  bool Hash(DiskTime& time) const {
    XXH3_state_t state;
    XXH3_64bits_reset(&state);
    std::array<char, 65536> block;
    if (lseek(_fFd, 0, SEEK_SET) < 0) {
      return false;
    }
    for (uint64_t size = 0; size <= kMaxContentBytes;) {
      const ssize_t count = read(_fFd, block.data(), block.size());
      if (count < 0 && errno == EINTR) {
        continue;
      }
      if (count <= 0) {
        time = TimeOfHash(XXH3_64bits_digest(&state));
        return count == 0;
      }
      XXH3_64bits_update(&state, block.data(), static_cast<size_t>(count));
      size += static_cast<uint64_t>(count);
    }
    return false;
  }

 private:
  const int _fFd;
};

}  // namespace

DiskTime ContentTime(BytesView bytes) noexcept {
  return TimeOfHash(XXH3_64bits(bytes.data(), bytes.size()));
}

CFileContent ReadContent(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    return {TimeOfMissing(errno), {}, false};
  }
  if (!S_ISREG(status.st_mode)) {
    return {scopeinfo::kFileDoesNotExistMtime, {}, false};
  }
  CFileContent content{0, StampOf(status), false};
  const CFile file(path);
  for (int i = 0; i < kMaxReads; ++i) {
    const int64_t read_at = FileClock();
    if (!file.IsOpen() || !file.Status(status)) {
      break;
    }
    content.stamp = StampOf(status);
    if (content.stamp.size > kMaxContentBytes || !file.Hash(content.disk_time) ||
        !file.Status(status)) {
      break;
    }
    if (StampOf(status) == content.stamp) {
      content.is_settled = IsSettled(content.stamp, read_at);
      return content;
    }
  }
  // Unreadable, too large, or never twice the same: nothing is kept of it.
  content.disk_time = TimeOfStamp(content.stamp);
  return content;
}

DiskTime GetFileDiskTime(const std::string& path) { return ReadContent(path).disk_time; }

}  // namespace pysource::standalone
