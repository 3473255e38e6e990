// Logs: one that can be closed, and one that always speaks.
#pragma once

#include <cstdio>
#include <utility>

#include "pysource/host/repr.h"
#include "pysource/host/text.h"

namespace pysource {

// A log with a name. While it is closed (fOutputFile null, as at first) a call costs one
// comparison: neither the format nor its arguments are touched.
class CLogger {
 public:
  explicit CLogger(Text name) : fName(std::move(name)) {}

  // Writes one line, "name: " and the format filled in with "%r" and "%s" (repr.h).
  template <class... Args>
  void operator()(TextView format, const Args&... args) const {
    if (fOutputFile != nullptr) {
      Write(FormatPercent(format, {FormatArg(args)...}));
    }
  }

  const Text fName;

  // Where lines go; not owned. Null while logging is off.
  std::FILE* fOutputFile = nullptr;

 private:
  void Write(const Text& line) const;
};

// Writes one line to the standard output.
void PrintLine(TextView line);

// For states that should not occur but must not take an editor down: prints `msg % args` on the
// standard output, always. One function, so that it is easy to send such lines elsewhere.
template <class... Args>
void CriticalLog(TextView msg, const Args&... args) {
  PrintLine(FormatPercent(msg, {FormatArg(args)...}));
}

}  // namespace pysource
