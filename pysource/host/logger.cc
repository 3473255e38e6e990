#include "pysource/host/logger.h"

namespace pysource {
namespace {

CLineSink& Sink() {
  static CLineSink sink;
  return sink;
}

}  // namespace

void CLogger::Write(const Text& line) const {
  std::fprintf(fOutputFile, "%s: %s\n", fName.c_str(), line.c_str());
}

void SetLineSink(CLineSink sink) { Sink() = std::move(sink); }

void PrintLine(TextView line) {
  if (Sink()) {
    Sink()(line);
    return;
  }
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fputc('\n', stderr);
}

}  // namespace pysource
