#include "pysource/scopeinfo/records/vocabulary.h"

#include <algorithm>
#include <atomic>
#include <string>

#include "pysource/host/velk.h"

namespace pysource::scopeinfo {
namespace {

bool IsDevelopmentPath(std::string path) {
  std::replace(path.begin(), path.end(), '\\', '/');
  return path.find("/bin/") == std::string::npos;
}

std::atomic<bool>& Flag() {
  static std::atomic<bool> flag{IsDevelopmentPath(velk::ModulePath())};
  return flag;
}

}  // namespace

bool kDevelopmentRun() { return Flag().load(std::memory_order_relaxed); }

bool SetDevelopmentRun(bool development_run) { return Flag().exchange(development_run); }

}  // namespace pysource::scopeinfo
