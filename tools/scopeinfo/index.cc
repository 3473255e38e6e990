// scopeinfo index: brings the database up to date with a tree.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "pysource/standalone/engine/findfiles.h"
#include "pysource/standalone/engine/indexer.h"
#include "tools/scopeinfo/commands.h"
#include "tools/scopeinfo/output.h"
#include "tools/scopeinfo/progress.h"
#include "tools/scopeinfo/session.h"

namespace pysource::tools {
namespace {

using Clock = std::chrono::steady_clock;

// Of each kind of note, unless --verbose asks for all: what one screen takes beside the summary.
constexpr size_t kMostNotes = 20;

double SecondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// "2 files could not be read:" and a line for each.
template <class Note, class Describe>
void AddNotes(std::string& text, const std::vector<Note>& notes, std::string_view what,
              bool verbose, Describe describe) {
  if (notes.empty()) {
    return;
  }
  text += fmt::format("\n  {} {}:\n", Counted(notes.size(), "file"), what);
  const size_t shown = verbose ? notes.size() : std::min(notes.size(), kMostNotes);
  for (size_t i = 0; i < shown; ++i) {
    text += fmt::format("    {}\n", Printable(describe(notes[i])));
  }
  if (shown < notes.size()) {
    text += fmt::format("    and {} more; --verbose names all\n", Grouped(notes.size() - shown));
  }
}

std::string Summary(const COptions& options, const standalone::CFoundFiles& found,
                    const standalone::CIndexReport& report, size_t database_bytes,
                    double find_seconds, double all_seconds) {
  std::string text = fmt::format(
      "{} {} of {} in {:.2f} s\n", report.cancelled ? "Interrupted after" : "Indexed",
      Grouped(report.scanned + report.unchanged), Counted(found.files.size(), "file"), all_seconds);
  const auto line = [&text](std::string_view name, const std::string& value) {
    text += fmt::format("  {:<9} {}\n", name, value);
  };
  line("files",
       fmt::format("{} scanned{}, {} unchanged, {} removed, {} unreadable", Grouped(report.scanned),
                   report.scanned_again == 0
                       ? ""
                       : fmt::format(" ({} unchanged, but tied to files that are not)",
                                     Grouped(report.scanned_again)),
                   Grouped(report.unchanged), Grouped(report.removed),
                   Grouped(report.unreadable.size())));
  if (report.scanned > 0) {
    line("scopes", Grouped(report.scopes));
    line("names", Grouped(report.names));
    line("records", Grouped(report.records));
    line("bytes",
         fmt::format("{} of source, {} of records, {} of database", ByteSize(report.source_bytes),
                     ByteSize(report.encoded_bytes), ByteSize(database_bytes)));
  }
  const standalone::CScanWorkTimes& times = report.worker_times;
  text += "\n";
  const auto stage = [&text](std::string_view name, double seconds, std::string_view remark) {
    text +=
        fmt::format("  {:<9} {:7.2f} s{}{}\n", name, seconds, remark.empty() ? "" : "  ", remark);
  };
  stage("find", find_seconds, "");
  stage("compare", report.plan_seconds, "with what the database holds");
  stage("scan", report.scan_seconds, fmt::format("in {}", Counted(options.jobs, "thread")));
  stage("  read", times.read, "of processor time");
  stage("  parse", times.scan, "");
  stage("  encode", times.encode, "");
  stage("store", report.store_seconds, "beside the scanning");

  AddNotes(text, report.unreadable, "could not be read", options.verbose,
           [](const standalone::CPathNote& note) { return NoteLine(note.path, note.text); });
  AddNotes(text, report.syntax_errors, "with errors of syntax, understood in part", options.verbose,
           [](const standalone::CSyntaxErrors& errors) {
             return fmt::format("{}:{}: {}", errors.path, errors.first_line,
                                Counted(errors.count, "error"));
           });
  return text;
}

}  // namespace

int RunIndex(const COptions& options) {
  const auto start = Clock::now();
  CSession session(options);
  standalone::CEngine& engine = session.Engine();
  const auto find_start = Clock::now();
  const standalone::CFoundFiles found =
      standalone::FindPythonFiles(options.paths, engine.Locations());
  const double find_seconds = SecondsSince(find_start);
  engine.Resolver().SetRoots(found.roots);
  for (const standalone::CPathNote& bad : found.bad) {
    Complain(fmt::format("{}: {}", bad.path, bad.text));
  }
  for (const standalone::CPathNote& error : found.errors) {
    Complain(fmt::format("{}: {}; what is in it is left out", error.path, error.text));
  }

  standalone::CIndexReport report;
  {
    CProgress progress("scanned");
    report = standalone::CIndexer(engine).Run(
        {found,
         [&progress](size_t done, size_t total, const std::string& path) {
           progress.Update(done, total, path);
         },
         session.Between()});
  }
  // The pages, not the file: the last saves are still in the log beside it.
  const size_t database_bytes = report.scanned > 0 ? engine.Database().DatabaseBytes() : 0;
  Write(Summary(options, found, report, database_bytes, find_seconds, SecondsSince(start)));
  session.DumpIfAsked();
  FlushOutput();
  for (const standalone::CPathNote& note : report.not_stored) {
    Complain("not stored: " + NoteLine(note.path, note.text));
  }
  if (report.cancelled) {
    Complain("interrupted; what was stored stays, and the next run goes on from there");
    return kExitInterrupted;
  }
  return found.bad.empty() && report.not_stored.empty() ? kExitOk : kExitFailed;
}

}  // namespace pysource::tools
