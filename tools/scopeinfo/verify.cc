// scopeinfo verify: whether the database is sound, and holds what scans of the files find.
#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "pysource/host/errors.h"
#include "pysource/standalone/engine/findfiles.h"
#include "pysource/standalone/engine/indexcheck.h"
#include "tools/scopeinfo/commands.h"
#include "tools/scopeinfo/interrupt.h"
#include "tools/scopeinfo/output.h"
#include "tools/scopeinfo/progress.h"

namespace pysource::tools {
namespace {

constexpr size_t kMostNotes = 20;

void ComplainOfAll(const std::vector<standalone::CPathNote>& notes, std::string_view what,
                   bool verbose) {
  for (size_t i = 0; i < notes.size(); ++i) {
    if (!verbose && i == kMostNotes) {
      Complain(fmt::format("and {} more {}", Grouped(notes.size() - i), what));
      break;
    }
    Complain(NoteLine(notes[i].path, notes[i].text));
  }
}

}  // namespace

int RunVerify(const COptions& options) {
  WatchForInterrupt();
  CLocationCache loc_cache;
  const standalone::CFoundFiles found = standalone::FindPythonFiles(options.paths, loc_cache);
  const auto db = OpenExistingDatabase(options.database, loc_cache);
  if (db == nullptr) {
    throw CValueError("there is no database yet; make it with: scopeinfo index PATH");
  }
  standalone::CCheckReport report;
  {
    CProgress progress("compared");
    report =
        standalone::CheckIndex(*db, loc_cache,
                               {found, options.jobs,
                                [&progress](size_t done, size_t total, const std::string& path) {
                                  progress.Update(done, total, path);
                                },
                                IsInterrupted});
  }
  if (report.cancelled) {
    Complain("interrupted");
    return kExitInterrupted;
  }
  const std::vector<Text> faults = db->Verify();

  std::string text = fmt::format("Compared {} of {} with the database\n",
                                 Counted(report.files, "file"), Grouped(found.files.size()));
  const auto line = [&text](std::string_view name, const std::string& value) {
    text += fmt::format("  {:<12} {}\n", name, value);
  };
  line("records",
       fmt::format("{} read back, {}; {} equal to what a scan finds", Grouped(report.records),
                   ByteSize(report.bytes), Grouped(report.equal)));
  line("differences", Grouped(report.differences.size()));
  line("not indexed", Counted(report.not_indexed.size(), "file"));
  line("unreadable", Counted(report.unreadable.size(), "file"));
  if (report.resting_on_changed > 0) {
    line("stale", fmt::format("{} made from files that have changed since",
                              Counted(report.resting_on_changed, "record")));
  }
  if (report.from_elsewhere > 0) {
    line("not checked",
         fmt::format("{} that files elsewhere made", Counted(report.from_elsewhere, "record")));
  }
  line("database", faults.empty() ? "sound" : Counted(faults.size(), "fault"));
  Write(text);
  FlushOutput();

  for (const standalone::CPathNote& bad : found.bad) {
    Complain(fmt::format("{}: {}", bad.path, bad.text));
  }
  ComplainOfAll(report.unreadable, "unreadable files", options.verbose);
  ComplainOfAll(report.not_indexed, "files that are not indexed", options.verbose);
  ComplainOfAll(report.differences, "differences", options.verbose);
  for (const Text& fault : faults) {
    Complain(fault);
  }
  const bool is_good = found.bad.empty() && report.not_indexed.empty() &&
                       report.differences.empty() && faults.empty();
  return is_good ? kExitOk : kExitFailed;
}

}  // namespace pysource::tools
