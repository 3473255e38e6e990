// How much the info cache holds, in numbers, and who holds how much memory, for reports of live
// processes. Looking changes nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

#include "pysource/host/memoryuse.h"
#include "pysource/scopeinfo/infocache/infocache.h"
#include "pysource/standalone/engine/engine.h"

namespace pysource::standalone {

struct CCacheStats {
  size_t files = 0;  // that have an entry
  // The five sets of record keys; crossfiledata.h tells how a key goes from one to the other.
  size_t known = 0;
  size_t needs_scan = 0;
  size_t in_database = 0;
  size_t to_write = 0;
  size_t could_not_write = 0;
  size_t used_scopes = 0;   // held in memory, and so up for a trim
  size_t live_records = 0;  // decoded
  size_t merged_records = 0;
  uint64_t merged_hits = 0;  // reads that a merged record answered, since the start
  uint64_t merged_misses = 0;
  size_t resident_bytes = 0;  // memory of the whole process; 0 where the system does not tell

  // From 0 to 1; 0 before the first read.
  double MergedHitRate() const;
  // Each number under its name, in the order above.
  std::vector<std::pair<std::string_view, uint64_t>> Items() const;
};

CCacheStats GetCacheStats(scopeinfo::CInfoCache& cache);

// Who holds the memory of a process with one engine. What no part owns up to, the program itself
// and the allocator's overhead among it, is the first level's own. Walks the whole cache.
CMemoryUse GetMemoryUse(CEngine& engine);

}  // namespace pysource::standalone
