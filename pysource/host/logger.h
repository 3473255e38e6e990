// Logs: one that can be closed, and one that always prints.
#pragma once

#include <cstdio>
#include <functional>
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

// Takes the lines that the module prints, one a call and without its end.
using CLineSink = std::function<void(TextView line)>;
// Sends them there from now on; an empty one brings back the standard error, where they go at
// first. Never the standard output: that belongs to the answers of the program around the module.
void SetLineSink(CLineSink sink);

// Hands one line to the sink.
void PrintLine(TextView line);

// For states that should not occur but must not end an editor: always prints `msg % args`.
template <class... Args>
void CriticalLog(TextView msg, const Args&... args) {
  PrintLine(FormatPercent(msg, {FormatArg(args)...}));
}

}  // namespace pysource
