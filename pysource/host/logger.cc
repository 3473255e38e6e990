#include "pysource/host/logger.h"

namespace pysource {

void CLogger::Write(const Text& line) const {
  std::fprintf(fOutputFile, "%s: %s\n", fName.c_str(), line.c_str());
}

void PrintLine(TextView line) {
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

}  // namespace pysource
