// scopeinfo verify: whether every row of the database is sound; of named files also whether it
// holds what scans of them find, and whether the cache answers with it.
#include <fmt/format.h>

#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "pysource/host/errors.h"
#include "pysource/standalone/engine/findfiles.h"
#include "pysource/standalone/engine/indexcheck.h"
#include "pysource/standalone/engine/mergecheck.h"
#include "pysource/standalone/engine/rowcheck.h"
#include "tools/scopeinfo/commands.h"
#include "tools/scopeinfo/interrupt.h"
#include "tools/scopeinfo/output.h"
#include "tools/scopeinfo/progress.h"
#include "tools/scopeinfo/session.h"

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

class CVerification {
 public:
  explicit CVerification(const COptions& options)
      : _fOptions(options), _fDb(OpenExistingDatabase(options.database, _fLocCache)) {
    if (_fDb == nullptr) {
      throw CValueError("there is no database yet; make it with: scopeinfo index PATH");
    }
  }

  int Run() {
    WatchForInterrupt();
    if (_fOptions.repair) {
      _fDb->Distrust();  // what a disk did to the file by itself no mark beside it tells
      _fDb->EnsureSound();
    }
    CheckRows();
    if (!_fOptions.paths.empty()) {
      _fFound = standalone::FindPythonFiles(_fOptions.paths, _fLocCache);
      for (const standalone::CPathNote& bad : _fFound.bad) {
        Complain(fmt::format("{}: {}", bad.path, bad.text));
        _fIsGood = false;
      }
      CheckFiles();
    }
    _fDb.reset();
    if (!_fOptions.paths.empty() && _fOptions.merged && !_fInterrupted) {
      CheckMerged();
    }
    if (_fInterrupted) {
      Complain("interrupted");
      return kExitInterrupted;
    }
    return _fIsGood ? kExitOk : kExitFailed;
  }

 private:
  static void Line(std::string_view name, const std::string& value) {
    Write(fmt::format("  {:<12} {}\n", name, value));
  }
  void Tell(const std::vector<standalone::CPathNote>& notes, std::string_view what) const {
    FlushOutput();
    ComplainOfAll(notes, what, _fOptions.verbose);
  }

  void CheckRows() {
    const standalone::CRowCheckReport report = standalone::CheckRows(*_fDb);
    Write(fmt::format("Read {} of {} in the database\n", Counted(report.records, "record"),
                      Counted(report.files, "file")));
    Line("decoded", ByteSize(report.bytes));
    Line("damaged", Grouped(report.damaged.size()));
    Line("stale", Grouped(report.stale.size()));
    Tell(report.damaged, "damaged");
    Tell(report.stale, "that are stale");
    if (!report.damaged.empty() && _fOptions.repair) {
      DropDamaged(report);
    } else if (!report.damaged.empty()) {
      Complain("what is damaged is repaired by: scopeinfo verify --repair, or by the next index");
      _fIsGood = false;
    }
  }

  // Files whose rows are sound but cannot be made anything of. What is still wrong with the database
  // itself could not be repaired, because of a lock or because it may only be read.
  void DropDamaged(const standalone::CRowCheckReport& report) {
    std::vector<Loc> damaged;
    std::set<std::string> paths;
    for (const standalone::CPathNote& note : report.damaged) {
      if (note.path == _fDb->Path()) {
        _fIsGood = false;
      } else if (paths.insert(note.path).second) {
        damaged.push_back(_fLocCache.GetLocationForPath(note.path));
      }
    }
    if (!_fIsGood) {
      Complain(fmt::format("{}: it could not be repaired now", _fDb->Path()));
    }
    if (damaged.empty()) {
      return;
    }
    if (_fDb->ClearInfoForFiles(damaged)) {
      Complain(fmt::format("dropped what was stored of {}; scan again with: scopeinfo index PATH",
                           Counted(damaged.size(), "file")));
    } else {
      Complain(_fDb->LastError());
      _fIsGood = false;
    }
  }

  void CheckFiles() {
    standalone::CCheckReport report;
    {
      CProgress progress("compared");
      report =
          standalone::CheckIndex(*_fDb, _fLocCache,
                                 {_fFound, _fOptions.jobs,
                                  [&progress](size_t done, size_t total, const std::string& path) {
                                    progress.Update(done, total, path);
                                  },
                                  IsInterrupted});
    }
    if (report.cancelled) {
      _fInterrupted = true;
      return;
    }
    Write(fmt::format("Compared {} of {} with what a scan finds\n", Counted(report.files, "file"),
                      Grouped(_fFound.files.size())));
    Line("records", fmt::format("{}, {}; {} equal", Grouped(report.records), ByteSize(report.bytes),
                                Grouped(report.equal)));
    Line("differences", Grouped(report.differences.size()));
    Line("not indexed", Counted(report.not_indexed.size(), "file"));
    Line("unreadable", Counted(report.unreadable.size(), "file"));
    if (report.resting_on_changed > 0) {
      Line("stale", fmt::format("{} made from files that have changed since",
                                Counted(report.resting_on_changed, "record")));
    }
    if (report.from_elsewhere > 0) {
      Line("not checked",
           fmt::format("{} that files elsewhere made", Counted(report.from_elsewhere, "record")));
    }
    Tell(report.unreadable, "unreadable files");
    Tell(report.not_indexed, "files that are not indexed");
    Tell(report.differences, "differences");
    _fIsGood = _fIsGood && report.not_indexed.empty() && report.differences.empty();
  }

  void CheckMerged() {
    CSession session(_fOptions);
    session.AnswerFirst();
    standalone::CEngine& engine = session.Engine();
    const standalone::CFoundFiles found =
        standalone::FindPythonFiles(_fOptions.paths, engine.Locations());
    engine.Resolver().SetRoots(found.roots);
    standalone::CMergeCheckReport report;
    {
      CProgress progress("scanned");
      report = standalone::CheckMerged(
          engine, {found, _fOptions.jobs,
                   [&progress](size_t done, size_t total, const std::string& path) {
                     progress.Update(done, total, path);
                   },
                   IsInterrupted});
    }
    if (report.cancelled) {
      _fInterrupted = true;
      return;
    }
    Write(fmt::format("Asked the cache for {}\n", Counted(report.scopes, "scope")));
    Line("equal", fmt::format("{} to a merge of what the scans find; {} of more than one record",
                              Grouped(report.equal), Grouped(report.merged)));
    Line("differences", Grouped(report.differences.size()));
    if (report.from_elsewhere > 0) {
      Line("not checked", fmt::format("{} in which files elsewhere have a part",
                                      Counted(report.from_elsewhere, "scope")));
    }
    Tell(report.differences, "differences");
    _fIsGood = _fIsGood && report.differences.empty();
  }

  const COptions& _fOptions;
  CLocationCache _fLocCache;
  std::unique_ptr<standalone::CSqliteAnalysisDb> _fDb;
  standalone::CFoundFiles _fFound;
  bool _fIsGood = true;
  bool _fInterrupted = false;
};

}  // namespace

int RunVerify(const COptions& options) { return CVerification(options).Run(); }

}  // namespace pysource::tools
