#include "pysource/standalone/scanner/scans.h"

namespace pysource::standalone {

std::vector<Text> ScanNames() {
  std::vector<Text> names;
  for (const CScanRow& scan : kScans) {
    names.emplace_back(scan.name);
  }
  return names;
}

const Text& AllScansDone() {
  static const Text kDone = [] {
    std::vector<Text> names = ScanNames();
    std::sort(names.begin(), names.end());
    Text done;
    for (const Text& name : names) {
      done += (done.empty() ? "" : ",") + name;
    }
    return done;
  }();
  return kDone;
}

size_t ScanIndex(TextView name) {
  return static_cast<size_t>(std::find_if(std::begin(kScans), std::end(kScans),
                                          [&](const CScanRow& row) { return row.name == name; }) -
                             std::begin(kScans));
}

}  // namespace pysource::standalone
