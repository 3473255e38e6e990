#include "pysource/standalone/engine/scanfiles.h"

#include <algorithm>

namespace pysource::standalone {

CScanWorkTimes ScanFiles(const CScanFilesRequest& request,
                         const std::function<bool(const CScanJobResult&)>& visit) {
  CScanWorkers workers(std::min(request.threads, request.files.size()), request.times,
                       request.resolver, nullptr);
  for (const CFoundFile& file : request.files) {
    workers.Give({file.loc, std::nullopt, 0}, 0);
  }
  while (workers.Outstanding() > 0) {
    if (request.is_cancelled != nullptr && request.is_cancelled()) {
      break;
    }
    const auto result = workers.Take(100);
    if (result && !visit(*result)) {
      break;
    }
  }
  return workers.Times();
}

}  // namespace pysource::standalone
