#include "tools/scopeinfo/session.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "pysource/host/errors.h"
#include "tools/scopeinfo/interrupt.h"
#include "tools/scopeinfo/output.h"

namespace pysource::tools {

CSession::CSession(const COptions& options)
    : _fOptions(options), _fOldLoop(velk::SetMainLoop(&_fLoop)) {
  WatchForInterrupt();
  const std::string& workspace = options.database.workspace;
  try {
    _fEngine = std::make_unique<standalone::CEngine>(standalone::CEngineOptions{
        .db_path = PrepareDatabasePath(options.database),
        .workspace_root = workspace,
        .import_roots = workspace.empty() ? std::vector<std::string>() : std::vector{workspace},
        .threads = options.jobs,
        .max_file_bytes = options.max_file_bytes,
        .lock_wait_ms = kLockWaitMs,
        .is_cancelled = IsInterrupted});
  } catch (...) {
    velk::SetMainLoop(_fOldLoop);
    throw;
  }
  Complain(_fEngine->Database().Message());
  _fEngine->Scans().fOnFailure = [this](const standalone::CScanRunner::Failure& failure) {
    _fFailures.push_back(failure);
  };
}

CSession::~CSession() {
  if (!_fIsFinished) {
    _fEngine->Database().LimitWaiting(kLastSavesWaitMs);
  }
  _fEngine.reset();
  velk::SetMainLoop(_fOldLoop);
}

std::function<bool()> CSession::Between() {
  return [this] {
    _fLoop.RunIdle();
    return !IsInterrupted();
  };
}

Loc CSession::OpenFile(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    throw CValueError(fmt::format("{}: {}", path, std::strerror(errno)));
  }
  if (!S_ISREG(status.st_mode)) {
    throw CValueError(path + " is no plain file");
  }
  return _fEngine->Locations().GetLocationForPath(path);
}

void CSession::ThrowIfNotScanned(Loc loc) const {
  const auto failure = std::find_if(_fFailures.begin(), _fFailures.end(),
                                    [loc](const auto& each) { return each.loc == loc; });
  if (failure != _fFailures.end()) {
    throw CValueError(NoteLine(PathForLocation(loc).value_or(loc->fUrl), failure->message));
  }
}

void CSession::AnswerFirst() {
  constexpr bool kDoSavesWait = false;
  _fEngine->Database().LimitWaiting(kLockWaitMs, kDoSavesWait);
}

void CSession::Finish() {
  DumpIfAsked();
  FlushOutput();
  standalone::CSqliteAnalysisDb& db = _fEngine->Database();
  db.LimitWaiting(kLastSavesWaitMs);
  _fIsFinished = true;  // what is left of the second is for the end
  scopeinfo::CInfoCache& cache = _fEngine->Cache();
  cache.WriteToDatabase();
  for (const Loc loc : cache.GetFilesHeld()) {
    const auto file = cache.GetFileHeld(loc);
    if (!db.ReadOnly() && !db.RefusalOf(loc).empty() && file &&
        (file->are_scans_done_unwritten || cache.GetUnwrittenCount(loc) != 0)) {
      Complain(db.RefusalOf(loc) + "; what was scanned for this answer will be scanned again");
      break;
    }
  }
}

void CSession::DumpIfAsked() {
  if (!_fOptions.debug_dump) {
    return;
  }
  const std::string dump = _fEngine->Cache().DebugDump();
  if (_fOptions.json) {
    FlushOutput();
    fmt::print(stderr, "{}\n", dump);
  } else {
    Write("\n" + dump + "\n");
  }
}

}  // namespace pysource::tools
