// scopeinfo classes and scopeinfo imports: what the database's own queries tell of a whole tree.
#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "pysource/host/analysisdb.h"
#include "pysource/host/errors.h"
#include "pysource/host/symbolinfo/bodies.h"
#include "pysource/host/symbolinfo/items.h"
#include "pysource/standalone/engine/filerows.h"
#include "pysource/standalone/engine/findfiles.h"
#include "pysource/standalone/engine/indexer.h"
#include "pysource/standalone/scanner/scanner.h"
#include "tools/scopeinfo/commands.h"
#include "tools/scopeinfo/describe.h"
#include "tools/scopeinfo/output.h"
#include "tools/scopeinfo/session.h"

namespace pysource::tools {
namespace {

using nlohmann::ordered_json;

std::string FileOf(Loc loc) { return PathForLocation(loc).value_or(loc->fUrl); }

// A session, and the files below the paths that it is to be asked about.
struct CQueriedFiles {
  explicit CQueriedFiles(const COptions& options) : session(Existing(options)) {
    session.AnswerFirst();
    found = standalone::FindPythonFiles(options.paths, session.Engine().Locations());
    for (const standalone::CPathNote& bad : found.bad) {
      Complain(fmt::format("{}: {}", bad.path, bad.text));
    }
    for (const standalone::CFoundFile& file : found.files) {
      locs.push_back(file.loc);
    }
  }

  // What the question gives. What the database has lost through damage is scanned again before, so
  // that the answer is the one of before the damage.
  template <class Ask>
  auto Answer(Ask ask) {
    auto answer = ask(Cache());
    standalone::CEngine& engine = session.Engine();
    if (engine.Database().RepairCount() != 0) {
      engine.Database().LimitWaiting(kLockWaitMs);  // the answer is what is saved now
      (void)engine.HasLostStored();
      engine.Resolver().SetRoots(found.roots);
      standalone::CIndexer(engine).Run({found, nullptr, session.Between()});
      answer = ask(Cache());
    }
    ReportMissing();
    return answer;
  }

  void ReportMissing() {
    CLocMtimeDict times;
    session.Engine().DiskTimes().RememberAll();
    for (const standalone::CFoundFile& file : found.files) {
      times.Set(file.loc, session.Engine().DiskTimes().TimeOf(file.loc, file.stamp));
    }
    const CScansDoneDict done = Cache().GetScansDoneForMultipleFiles(times);
    const auto missing =
        static_cast<size_t>(std::count_if(locs.begin(), locs.end(), [&done](Loc loc) {
          const Text* scans = done.Find(loc);
          return scans == nullptr || *scans != standalone::AllScansDone();
        }));
    if (missing > 0) {
      Complain(
          fmt::format("{} of {} not in the database as they are now; bring it up to date "
                      "with: scopeinfo index PATH",
                      Grouped(missing), Counted(locs.size(), "file")));
    }
  }

  // Where there is no database, an answer from an empty one would only mislead.
  static const COptions& Existing(const COptions& options) {
    if (!DatabaseExists(options.database)) {
      throw CValueError("there is no database yet; make it with: scopeinfo index PATH");
    }
    return options;
  }

  scopeinfo::CInfoCache& Cache() { return session.Engine().Cache(); }
  int ExitCode() const { return found.bad.empty() ? kExitOk : kExitFailed; }

  CSession session;
  standalone::CFoundFiles found;
  std::vector<Loc> locs;
};

void WriteRows(const COptions& options, const ordered_json& json, const CTable& table,
               std::string_view what) {
  if (options.json) {
    WriteJson(json);
  } else if (table.empty()) {
    Complain(fmt::format("no {} found", what));
  } else {
    Write(table.ToString());
  }
}

}  // namespace

int RunClasses(const COptions& options) {
  CQueriedFiles files(options);
  std::vector<CClassEquiv> classes = files.Answer(
      [&files](scopeinfo::CInfoCache& cache) { return cache.GetAllClasses(files.locs); });
  std::sort(classes.begin(), classes.end());
  ordered_json json = ordered_json::array();
  CTable table({"Class", "Bases", "File"});
  for (const CClassEquiv& found : classes) {
    const CDefinitionBody definition = ReadDefinition(ReadInfoItem(found.ibytes).body);
    if (options.json) {
      json.push_back({{"file", FileOf(found.loc)},
                      {"class", definition.scope},
                      {"bases", definition.inside},
                      {"info", found.ibytes}});
    } else {
      table.AddRow({Printable(definition.scope), Printable(definition.inside),
                    Printable(FileOf(found.loc))});
    }
  }
  WriteRows(options, json, table, "classes");
  files.session.Finish();
  return files.ExitCode();
}

int RunImports(const COptions& options) {
  CQueriedFiles files(options);
  std::vector<CImportEquiv> imports = files.Answer(
      [&files](scopeinfo::CInfoCache& cache) { return cache.GetAllImports(files.locs); });
  std::sort(imports.begin(), imports.end(), [](const CImportEquiv& a, const CImportEquiv& b) {
    return a.loc != b.loc ? a.loc < b.loc
                          : std::tie(a.scope_name, a.ibytes) < std::tie(b.scope_name, b.ibytes);
  });
  ordered_json json = ordered_json::array();
  CTable table({"Module", "Name", "Scope", "File"});
  for (const CImportEquiv& found : imports) {
    const CInfoItem item = ReadInfoItem(found.ibytes);
    const CImportBody import =
        ReadImport(item.kind, item.body).value_or(CImportBody{item.body, {}, {}});
    if (options.json) {
      ordered_json entry{
          {"file", FileOf(found.loc)}, {"scope", found.scope_name}, {"module", import.module}};
      entry["name"] = import.name.empty() ? ordered_json() : ordered_json(import.name);
      entry["info"] = found.ibytes;
      json.push_back(std::move(entry));
    } else {
      table.AddRow({Printable(import.module), Printable(import.name), Printable(found.scope_name),
                    Printable(FileOf(found.loc))});
    }
  }
  WriteRows(options, json, table, "imports");
  files.session.Finish();
  return files.ExitCode();
}

}  // namespace pysource::tools
