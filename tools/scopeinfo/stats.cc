// scopeinfo stats: what the database holds, and what room it takes; of named files also what a
// cache holds that was asked for all their scopes.
#include <fmt/format.h>

#include <optional>
#include <string>
#include <vector>

#include "pysource/host/errors.h"
#include "pysource/scopeinfo/records/vocabulary.h"
#include "pysource/standalone/engine/cachestats.h"
#include "pysource/standalone/engine/findfiles.h"
#include "pysource/standalone/files/disktimes.h"
#include "pysource/standalone/scanner/scanner.h"
#include "tools/scopeinfo/commands.h"
#include "tools/scopeinfo/output.h"
#include "tools/scopeinfo/session.h"

namespace pysource::tools {
namespace {

using nlohmann::ordered_json;

struct CStaleCounts {
  size_t changed = 0;
  size_t gone = 0;
};

CStaleCounts CountStaleFiles(standalone::CSqliteAnalysisDb& db) {
  CStaleCounts counts;
  standalone::CDiskTimes times;
  times.SetStore(&db);
  times.RememberAll();
  db.VisitFiles([&](const standalone::CStoredFile& file) {
    const DiskTime now = times.TimeOf(file.loc);
    if (now == static_cast<DiskTime>(scopeinfo::kFileDoesNotExistMtime)) {
      ++counts.gone;
    } else if (now != file.disk_time) {
      ++counts.changed;
    }
  });
  return counts;
}

ordered_json ToJson(const std::string& path, const standalone::CSqliteDbStats& stats,
                    const CStaleCounts& stale) {
  return {{"database", path},
          {"files", stats.files},
          {"files_changed", stale.changed},
          {"files_gone", stale.gone},
          {"scopes", stats.scopes},
          {"records", stats.records},
          {"records_by_scan", stats.records_by_scan},
          {"bytes",
           {{"records", stats.data_bytes},
            {"equivalences", stats.equivs_bytes},
            {"scope_names", stats.name_bytes},
            {"scopes_seen", stats.scopes_seen_bytes},
            {"database", stats.database_bytes},
            {"free", stats.free_bytes}}}};
}

std::string ToTable(const std::string& path, const standalone::CSqliteDbStats& stats,
                    const CStaleCounts& stale) {
  std::string text = fmt::format("{}\n", Printable(path));
  const auto line = [&text](std::string_view name, const std::string& value) {
    text += fmt::format("  {:<9} {}\n", name, value);
  };
  line("files", fmt::format("{}, of these {} changed since and {} gone", Grouped(stats.files),
                            Grouped(stale.changed), Grouped(stale.gone)));
  line("scopes", Grouped(stats.scopes));
  std::string scans;
  for (const auto& [scan, count] : stats.records_by_scan) {
    scans += fmt::format("{}{} by {}", scans.empty() ? ": " : ", ", Grouped(count),
                         scan.empty() ? "no named scan" : Printable(scan));
  }
  line("records", Grouped(stats.records) + scans);
  line("bytes",
       fmt::format("{} of records, {} of classes and imports, {} of scope names, {} of files seen",
                   ByteSize(stats.data_bytes), ByteSize(stats.equivs_bytes),
                   ByteSize(stats.name_bytes), ByteSize(stats.scopes_seen_bytes)));
  line("database", fmt::format("{}, of these {} free; {:.2f} bytes a byte of record",
                               ByteSize(stats.database_bytes), ByteSize(stats.free_bytes),
                               stats.data_bytes == 0 ? 0.0
                                                     : static_cast<double>(stats.database_bytes) /
                                                           static_cast<double>(stats.data_bytes)));
  return text;
}

// Of a cache that was asked for every scope of the named files.
struct CCacheReport {
  standalone::CCacheStats stats;
  CMemoryUse memory;
  bool all_found = true;  // nothing was named that is not there
};

// Asks for every scope of the files, as they are in the database, twice for each file.
CCacheReport AskForAll(const COptions& options) {
  CSession session(options);
  session.AnswerFirst();
  standalone::CEngine& engine = session.Engine();
  const auto between = session.Between();
  const standalone::CFoundFiles found =
      standalone::FindPythonFiles(options.paths, engine.Locations());
  for (const standalone::CPathNote& bad : found.bad) {
    Complain(NoteLine(bad.path, bad.text));
  }
  for (const standalone::CFoundFile& file : found.files) {
    const TextSet name_set = engine.Cache().GetAllScopeNames(file.loc);
    const std::vector<Text> names(name_set.begin(), name_set.end());
    for (int pass = 0; pass < 2; ++pass) {
      (void)engine.Cache().GetMultipleScopeInfos(file.loc, names);
    }
    if (!between()) {
      break;
    }
  }
  return {standalone::GetCacheStats(engine.Cache()), standalone::GetMemoryUse(engine),
          found.bad.empty()};
}

// A line for each owner, below the one that it is a part of.
void AddOwners(const CMemoryUse& owner, size_t depth, std::string& text) {
  text += fmt::format("  {:<9} {:>10}  {:{}}{}\n", depth == 0 ? "memory" : "",
                      ByteSize(owner.Total()), "", 2 * depth, owner.name);
  for (const CMemoryUse& part : owner.parts) {
    AddOwners(part, depth + 1, text);
  }
}

std::string ToTable(const CCacheReport& report) {
  const standalone::CCacheStats& stats = report.stats;
  std::string text = "\nA cache that was asked twice for every scope of the named files\n";
  const auto line = [&text](std::string_view name, const std::string& value) {
    text += fmt::format("  {:<9} {}\n", name, value);
  };
  line("files", Grouped(stats.files));
  line("scopes", fmt::format("{} in memory", Grouped(stats.used_scopes)));
  line("keys",
       fmt::format("{} known, {} in the database, {} to be written, {} that could not be "
                   "written, {} to be scanned again",
                   Grouped(stats.known), Grouped(stats.in_database), Grouped(stats.to_write),
                   Grouped(stats.could_not_write), Grouped(stats.needs_scan)));
  line("merged",
       fmt::format("{} records; {} of {} reads answered by one, {:.1f} %",
                   Grouped(stats.merged_records), Grouped(stats.merged_hits),
                   Grouped(stats.merged_hits + stats.merged_misses), 100 * stats.MergedHitRate()));
  line("decoded", Counted(stats.live_records, "record"));
  AddOwners(report.memory, 0, text);
  return text;
}

}  // namespace

int RunStats(const COptions& options) {
  CLocationCache loc_cache;
  auto db = OpenExistingDatabase(options.database, loc_cache);
  if (db == nullptr) {
    throw CValueError("there is no database yet; make it with: scopeinfo index PATH");
  }
  const std::string path = db->Path();
  const standalone::CSqliteDbStats stats = db->Stats();
  const CStaleCounts stale = CountStaleFiles(*db);
  db.reset();
  std::optional<CCacheReport> cache;
  if (!options.paths.empty()) {
    cache = AskForAll(options);
  }
  if (options.json) {
    ordered_json json = ToJson(path, stats, stale);
    if (cache) {
      for (const auto& [name, value] : cache->stats.Items()) {
        json["cache"][std::string(name)] = value;
      }
      json["cache"]["merged_hit_rate"] = cache->stats.MergedHitRate();
      json["memory"] = ToJson(cache->memory);
    }
    WriteJson(json);
  } else {
    Write(ToTable(path, stats, stale) + (cache ? ToTable(*cache) : ""));
  }
  return cache && !cache->all_found ? kExitFailed : kExitOk;
}

}  // namespace pysource::tools
