// Scanning a list of files to the end, for programs that wait for it.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

#include "pysource/standalone/engine/findfiles.h"
#include "pysource/standalone/engine/scanworkers.h"
#include "pysource/standalone/scanner/importresolver.h"

namespace pysource::standalone {

struct CScanFilesRequest {
  const std::vector<CFoundFile>& files;
  size_t threads = 1;
  CDiskTimes& times;
  const CImportResolver& resolver;
  // Asked before each result, and ten times a second while there is none; null: never.
  std::function<bool()> is_cancelled;
};

// Scans the files in threads of its own and calls `visit` with each result, on the calling thread,
// in the order in which they are ready. `visit` ends it by returning false. What it took, of what
// was done: files in hand are finished and dropped when it ends early.
CScanWorkTimes ScanFiles(const CScanFilesRequest& request,
                         const std::function<bool(const CScanJobResult&)>& visit);

}  // namespace pysource::standalone
