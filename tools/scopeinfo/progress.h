// How far the work is: a bar on a terminal, a plain line now and then elsewhere. On the standard
// error, so that the output proper can go to a file or a pipe.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>

namespace pysource::tools {

class CProgress {
 public:
  // `what` is done with files: "scanned".
  explicit CProgress(std::string_view what);
  // Takes the bar off the screen.
  ~CProgress();
  CProgress(const CProgress&) = delete;
  CProgress& operator=(const CProgress&) = delete;

  void Update(size_t done, size_t total, const std::string& path);

 private:
  void ShowBar(size_t done, size_t total, const std::string& path);

  const std::string _fWhat;
  const bool _fOnTerminal;
  bool _fShown = false;
  std::chrono::steady_clock::time_point _fNext;
};

}  // namespace pysource::tools
