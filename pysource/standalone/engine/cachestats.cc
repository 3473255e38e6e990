#include "pysource/standalone/engine/cachestats.h"

#include <unistd.h>

#include <fstream>

namespace pysource::standalone {
namespace {

size_t ResidentBytes() {
  std::ifstream statm("/proc/self/statm");
  size_t all_pages = 0;
  size_t resident_pages = 0;
  statm >> all_pages >> resident_pages;
  return statm ? resident_pages * static_cast<size_t>(sysconf(_SC_PAGESIZE)) : 0;
}

}  // namespace

double CCacheStats::MergedHitRate() const {
  const auto all = static_cast<double>(merged_hits + merged_misses);
  return all == 0 ? 0 : static_cast<double>(merged_hits) / all;
}

std::vector<std::pair<std::string_view, uint64_t>> CCacheStats::Items() const {
  return {{"files", files},
          {"known", known},
          {"needs_scan", needs_scan},
          {"in_database", in_database},
          {"to_write", to_write},
          {"could_not_write", could_not_write},
          {"used_scopes", used_scopes},
          {"live_records", live_records},
          {"merged_records", merged_records},
          {"merged_hits", merged_hits},
          {"merged_misses", merged_misses},
          {"resident_bytes", resident_bytes}};
}

CCacheStats GetCacheStats(scopeinfo::CInfoCache& cache) {
  const scopeinfo::CHeldCounts counts = cache.GetCounts();
  return {.files = counts.files,
          .known = counts.known,
          .needs_scan = counts.needs_scan,
          .in_database = counts.in_database,
          .to_write = counts.to_write,
          .could_not_write = counts.could_not_write,
          .used_scopes = cache.UsedScopeCount(),
          .live_records = counts.live_records,
          .merged_records = cache.MergedInfoCount(),
          .merged_hits = cache.MergedInfoHits(),
          .merged_misses = cache.MergedInfoMisses(),
          .resident_bytes = ResidentBytes()};
}

CMemoryUse GetMemoryUse(CEngine& engine) {
  CMemoryUse process{"process",
                     0,
                     {engine.Cache().MemoryUse(),
                      {"database cache", engine.Database().MemoryUse(), {}},
                      {"locations", engine.Locations().MemoryUse(), {}}}};
  const size_t resident = ResidentBytes();
  const size_t owned = process.Total();
  process.own = resident > owned ? resident - owned : 0;
  return process;
}

}  // namespace pysource::standalone
