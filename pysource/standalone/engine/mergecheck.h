// Whether the info cache answers, for every scope of a tree, what a merge made straight from the
// scanner's records gives, without running a scan.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "pysource/standalone/engine/engine.h"
#include "pysource/standalone/engine/findfiles.h"

namespace pysource::standalone {

struct CMergeCheckRequest {
  const CFoundFiles& found;
  size_t jobs = 1;
  std::function<void(size_t done, size_t total, const std::string& path)> on_progress;
  std::function<bool()> is_cancelled;
};

struct CMergeCheckReport {
  size_t scopes = 0;          // asked for
  size_t equal = 0;           // answered with the same record
  size_t merged = 0;          // of these: from more than one record
  size_t from_elsewhere = 0;  // not compared: files outside of the tree had a part in them
  bool cancelled = false;
  std::vector<CPathNote> differences;
};

// Scans every file again, keeping all records in memory, and then asks the cache. The order of the
// records that a scope is merged from is the cache's own; which records they are, and what each of
// them says, is compared.
CMergeCheckReport CheckMerged(CEngine& engine, const CMergeCheckRequest& request);

}  // namespace pysource::standalone
