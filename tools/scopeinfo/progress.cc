#include "tools/scopeinfo/progress.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "tools/scopeinfo/output.h"

namespace pysource::tools {
namespace {

using std::chrono::milliseconds;

// Often enough to look alive, seldom enough to cost nothing.
constexpr milliseconds kBarInterval{100};
constexpr milliseconds kLineInterval{5000};
constexpr size_t kBarWidth = 24;

size_t TerminalWidth() {
  winsize size{};
  return ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

}  // namespace

CProgress::CProgress(std::string_view what)
    : _fWhat(what),
      _fOnTerminal(isatty(STDERR_FILENO) == 1),
      _fNext(std::chrono::steady_clock::now() + (_fOnTerminal ? kBarInterval : kLineInterval)) {}

CProgress::~CProgress() {
  if (_fShown) {
    std::fputs("\r\033[K", stderr);
  }
}

void CProgress::Update(size_t done, size_t total, const std::string& path) {
  const auto now = std::chrono::steady_clock::now();
  if (now < _fNext || total == 0) {
    return;
  }
  _fNext = now + (_fOnTerminal ? kBarInterval : kLineInterval);
  if (_fOnTerminal) {
    ShowBar(done, total, path);
  } else {
    Complain(fmt::format("{} of {} {}", Grouped(done), Counted(total, "file"), _fWhat));
  }
}

void CProgress::ShowBar(size_t done, size_t total, const std::string& path) {
  const size_t filled = done * kBarWidth / total;
  std::string line = fmt::format("[{}{}] {} of {} {} ", std::string(filled, '#'),
                                 std::string(kBarWidth - filled, '.'), Grouped(done),
                                 Counted(total, "file"), _fWhat);
  const size_t width = TerminalWidth() - 1;
  const std::string name = Printable(path);
  if (width > line.size()) {
    // The end of a path says more than its beginning.
    line += name.substr(name.size() - std::min(name.size(), width - line.size()));
  }
  fmt::print(stderr, "\r\033[K{}", line.substr(0, width));
  std::fflush(stderr);
  _fShown = true;
}

}  // namespace pysource::tools
