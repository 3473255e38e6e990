#include "pysource/standalone/files/filestamp.h"

#include <ctime>

namespace pysource::standalone {
namespace {

constexpr int64_t kSecond = 1'000'000'000;

// Linux dates changes by a clock of 1 to 10 ms a tick. The rest is for file systems whose clock is
// another machine's, a host's or a server's, and a little ahead.
constexpr int64_t kTick = kSecond / 20;
// Some file systems keep no fractions of a second; FAT keeps even seconds alone.
constexpr int64_t kCoarseTick = 2 * kSecond;

int64_t Nanoseconds(const timespec& time) noexcept { return time.tv_sec * kSecond + time.tv_nsec; }

}  // namespace

CFileStamp StampOf(const struct stat& status) noexcept {
  return {Nanoseconds(status.st_mtim), Nanoseconds(status.st_ctim),
          static_cast<uint64_t>(status.st_size), status.st_ino};
}

int64_t FileClock() noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return Nanoseconds(now);
}

bool IsSettled(const CFileStamp& stamp, int64_t read_at) noexcept {
  return read_at - stamp.ctime_ns > (stamp.ctime_ns % kSecond == 0 ? kCoarseTick : kTick);
}

}  // namespace pysource::standalone
