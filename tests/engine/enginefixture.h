// What the tests of the engine share: an engine over a folder of its own, under a loop that runs
// when a test says so.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "pysource/host/manualloop.h"
#include "pysource/standalone/engine/engine.h"

namespace pysource::standalone {

// The folder is the workspace, the root of imports and the place of the database.
class CEngineWorld {
 public:
  CEngineWorld() {
    std::string name =
        (std::filesystem::temp_directory_path() / "scopeinfo-engine-XXXXXX").string();
    fRoot = mkdtemp(name.data());
    velk::SetMainLoop(&fLoop);
  }
  ~CEngineWorld() {
    fEngine.reset();
    EXPECT_EQ(fLoop.PendingIdleCount() + fLoop.PendingTimeoutCount(), 0U);
    velk::SetMainLoop(nullptr);
    std::filesystem::remove_all(fRoot);
  }
  CEngineWorld(const CEngineWorld&) = delete;
  CEngineWorld& operator=(const CEngineWorld&) = delete;

  CEngineOptions Options(size_t threads, scopeinfo::CInfoCacheLimits limits = {}) const {
    return {.db_path = Path("scopes.db"),
            .workspace_root = fRoot,
            .import_roots = {fRoot},
            .threads = threads,
            .notify = nullptr,
            .limits = limits};
  }
  // A new process over the same database.
  void Start(const CEngineOptions& options) {
    fEngine.reset();
    fFailures.clear();
    fEngine = std::make_unique<CEngine>(options);
    fEngine->Scans().fOnFailure = [this](const CScanRunner::Failure& failure) {
      fFailures.push_back(failure.message);
    };
  }

  std::string Path(const std::string& name) const { return fRoot + "/" + name; }
  // Good as long as this engine.
  Loc At(const std::string& name) const {
    return fEngine->Locations().GetLocationForPath(Path(name));
  }
  // Puts the content on disk, dated to that second.
  void Put(const std::string& name, const std::string& source, time_t second) const {
    std::ofstream(Path(name), std::ios::binary) << source;
    const timespec times[2] = {{second, 0}, {second, 0}};
    utimensat(AT_FDCWD, Path(name).c_str(), times, 0);
  }

  std::string fRoot;
  velk::CManualLoop fLoop;
  std::unique_ptr<CEngine> fEngine;
  std::vector<std::string> fFailures;  // of scans, since the start of the engine
};

class CEngineTest : public testing::Test, protected CEngineWorld {
 protected:
  CEngineTest() { Start(); }

  void Start() { CEngineWorld::Start(Options(2)); }
  // Each write gets a time of its own, as if seconds had passed.
  Loc Write(const std::string& name, const std::string& source) {
    Put(name, source, ++_fSeconds);
    return At(name);
  }
  // The value of the name in the scope as it is told now; "-" without one.
  std::string Value(Loc loc, TextView scope, TextView name, bool inst = false) {
    const auto info = fEngine->Ask(loc, scope, [this] { return fLoop.RunIdle(), true; });
    fEngine->Cache().CheckInvariants();
    if (info == nullptr) {
      return "-";
    }
    return std::string(info->GetInfoBytes(name, BytesView("-"), inst).value_or("-"));
  }
  void Settle() {
    EXPECT_TRUE(fEngine->RunScans([this] { return fLoop.RunIdle(), true; }));
    fEngine->Cache().CheckInvariants();
  }
  size_t FilesScanned() const { return fEngine->Scans().GetCounts().files_scanned; }

 private:
  time_t _fSeconds = 1700000000;
};

}  // namespace pysource::standalone
