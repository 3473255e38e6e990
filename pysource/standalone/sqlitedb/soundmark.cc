#include "pysource/standalone/sqlitedb/soundmark.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>

namespace pysource::standalone::sqlitedb {
namespace {

std::string MarkPath(const std::string& path) { return path + "-sound"; }

// Empty when there is no such file, or changes wait in a log beside it.
std::string LooksOf(const std::string& path) {
  struct stat file {};
  struct stat log {};
  if (stat(path.c_str(), &file) != 0 ||
      (stat((path + "-wal").c_str(), &log) == 0 && log.st_size != 0)) {
    return {};
  }
  std::string looks;
  for (const auto value :
       {static_cast<int64_t>(file.st_dev), static_cast<int64_t>(file.st_ino),
        static_cast<int64_t>(file.st_size), static_cast<int64_t>(file.st_mtim.tv_sec),
        static_cast<int64_t>(file.st_mtim.tv_nsec), static_cast<int64_t>(file.st_ctim.tv_sec),
        static_cast<int64_t>(file.st_ctim.tv_nsec)}) {
    looks += std::to_string(value) + " ";
  }
  return looks += "\n";
}

std::string ReadMark(const std::string& path) {
  const int fd = open(MarkPath(path).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) {
    return {};
  }
  std::array<char, 256> text{};
  const ssize_t size = read(fd, text.data(), text.size());
  close(fd);
  return size < 0 ? std::string() : std::string(text.data(), static_cast<size_t>(size));
}

}  // namespace

bool IsMarkedSound(const std::string& path) {
  const std::string looks = LooksOf(path);
  return !looks.empty() && looks == ReadMark(path);
}

void MarkSound(const std::string& path) {
  const std::string looks = LooksOf(path);
  if (looks.empty() || looks == ReadMark(path)) {
    return;
  }
  const int fd = open(MarkPath(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) {
    return;
  }
  const bool is_written =
      write(fd, looks.data(), looks.size()) == static_cast<ssize_t>(looks.size());
  if (close(fd) != 0 || !is_written) {
    unlink(MarkPath(path).c_str());
  }
}

}  // namespace pysource::standalone::sqlitedb
