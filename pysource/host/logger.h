// Logs: one that can be closed, and one that always prints.
#pragma once

#include <cstdio>
#include <utility>

#include "pysource/host/repr.h"
#include "pysource/host/text.h"

namespace pysource {

// A log with a name. While it is closed (fOutputFile is null, as it is at first), a call costs one
// comparison and formats nothing.
class CLogger {
 public:
  explicit CLogger(Text name) : fName(std::move(name)) {}

  // Writes one line: "name: " and the format, whose "%r" and "%s" are filled in (repr.h).
  template <class... Args>
  void operator()(TextView format, const Args&... args) const {
    if (fOutputFile != nullptr) {
      Write(FormatPercent(format, {FormatArg(args)...}));
    }
  }

  const Text fName;

  // The file that lines are written to; not owned. Null while the log is closed.
  std::FILE* fOutputFile = nullptr;

 private:
  void Write(const Text& line) const;
};

// Writes one line to the standard output.
void PrintLine(TextView line);

// For states that should not occur but must not end an editor: always prints `msg % args` on the
// standard output. One function, so that it is easy to send such lines elsewhere.
template <class... Args>
void CriticalLog(TextView msg, const Args&... args) {
  PrintLine(FormatPercent(msg, {FormatArg(args)...}));
}

}  // namespace pysource
