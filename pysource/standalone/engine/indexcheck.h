// Whether the database holds what a scan of the files finds now: each file is scanned again, its
// rows are read back, and the two are compared, record by record, as bytes and as decoded content.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "pysource/host/analysisdb.h"
#include "pysource/host/location.h"
#include "pysource/standalone/engine/findfiles.h"

namespace pysource::standalone {

struct CCheckRequest {
  const CFoundFiles& found;
  size_t jobs = 1;
  std::function<void(size_t done, size_t total, const std::string& path)> on_progress;
  std::function<bool()> is_cancelled;
};

struct CCheckReport {
  size_t files = 0;    // that were compared
  size_t records = 0;  // that were compared
  size_t bytes = 0;    // of their encoded forms
  size_t equal = 0;    // records that are equal
  // Rows that hold information from files that are not among those checked.
  size_t from_elsewhere = 0;
  // Records that are equal, but rest on a file that has changed since they were stored.
  size_t resting_on_changed = 0;
  bool cancelled = false;

  std::vector<CPathNote> unreadable;   // files that could not be scanned, and so not compared
  std::vector<CPathNote> not_indexed;  // files that the database does not hold as they are now
  std::vector<CPathNote> differences;
};

CCheckReport CheckIndex(CAnalysisDb& db, CLocationCache& loc_cache, const CCheckRequest& request);

}  // namespace pysource::standalone
