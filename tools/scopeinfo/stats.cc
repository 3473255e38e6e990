// scopeinfo stats: what the database holds, and what room it takes.
#include <fmt/format.h>

#include <cmath>
#include <string>

#include "pysource/host/errors.h"
#include "pysource/scopeinfo/records/vocabulary.h"
#include "pysource/standalone/scanner/scanner.h"
#include "pysource/standalone/scanner/sourcefile.h"
#include "tools/scopeinfo/commands.h"
#include "tools/scopeinfo/output.h"

namespace pysource::tools {
namespace {

using nlohmann::ordered_json;

struct CStaleCounts {
  size_t changed = 0;
  size_t gone = 0;
};

CStaleCounts CountStaleFiles(standalone::CSqliteAnalysisDb& db) {
  CStaleCounts counts;
  db.VisitFiles([&counts](const standalone::CStoredFile& file) {
    const auto path = PathForLocation(file.loc);
    const DiskTime now =
        path ? standalone::GetFileDiskTime(*path) : DiskTime{scopeinfo::kFileDoesNotExistMtime};
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
                               stats.data_bytes == 0
                                   ? 0.0
                                   : static_cast<double>(stats.database_bytes) /
                                         static_cast<double>(stats.data_bytes)));
  return text;
}

}  // namespace

int RunStats(const COptions& options) {
  CLocationCache loc_cache;
  const auto db = OpenExistingDatabase(options.database, loc_cache);
  if (db == nullptr) {
    throw CValueError("there is no database yet; make it with: scopeinfo index PATH");
  }
  const standalone::CSqliteDbStats stats = db->Stats();
  const CStaleCounts stale = CountStaleFiles(*db);
  if (options.json) {
    WriteJson(ToJson(db->Path(), stats, stale));
  } else {
    Write(ToTable(db->Path(), stats, stale));
  }
  return kExitOk;
}

}  // namespace pysource::tools
