// The engine as a whole: questions that make scans run, files and buffers that change under it, and
// a second life over the same database.
#include "pysource/standalone/engine/engine.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "pysource/host/manualloop.h"
#include "pysource/standalone/scanner/sourcefile.h"

namespace pysource::standalone {
namespace {

namespace fs = std::filesystem;

class EngineTest : public testing::Test {
 protected:
  EngineTest() {
    std::string name = (fs::temp_directory_path() / "scopeinfo-engine-XXXXXX").string();
    _fRoot = mkdtemp(name.data());
    velk::SetMainLoop(&_fLoop);
    Start();
  }
  ~EngineTest() override {
    _fEngine.reset();
    EXPECT_EQ(_fLoop.PendingIdleCount() + _fLoop.PendingTimeoutCount(), 0U);
    velk::SetMainLoop(nullptr);
    fs::remove_all(_fRoot);
  }

  // A new process over the same database.
  void Start() {
    _fEngine.reset();
    _fFailures.clear();
    _fEngine = std::make_unique<CEngine>(CEngineOptions{.db_path = _fRoot + "/scopes.db",
                                                        .workspace_root = _fRoot,
                                                        .import_roots = {_fRoot},
                                                        .threads = 2});
    _fEngine->Scans().fOnFailure = [this](const CScanRunner::Failure& failure) {
      _fFailures.push_back(failure.message);
    };
  }

  std::string Path(const std::string& name) const { return _fRoot + "/" + name; }
  // Each write gets a time of its own, as if seconds had passed.
  Loc Write(const std::string& name, const std::string& source) {
    std::ofstream(Path(name), std::ios::binary) << source;
    const timespec times[2] = {{++_fSeconds, 0}, {_fSeconds, 0}};
    utimensat(AT_FDCWD, Path(name).c_str(), times, 0);
    return _fEngine->Locations().GetLocationForPath(Path(name));
  }
  // The value of the name in the scope as it is told now; "-" without one.
  std::string Value(Loc loc, TextView scope, TextView name, bool inst = false) {
    const auto info = _fEngine->Ask(loc, scope, [this] { return _fLoop.RunIdle(), true; });
    _fEngine->Cache().CheckInvariants();
    if (info == nullptr) {
      return "-";
    }
    return std::string(info->GetInfoBytes(name, BytesView("-"), inst).value_or("-"));
  }
  void Settle() {
    EXPECT_TRUE(_fEngine->RunScans([this] { return _fLoop.RunIdle(), true; }));
    _fEngine->Cache().CheckInvariants();
  }
  size_t FilesScanned() const { return _fEngine->Scans().GetCounts().files_scanned; }

  std::string _fRoot;
  velk::CManualLoop _fLoop;
  std::unique_ptr<CEngine> _fEngine;
  std::vector<std::string> _fFailures;
  time_t _fSeconds = 1700000000;
};

TEST_F(EngineTest, AFileThatWasNeverIndexedIsScannedOnceAndNotAgainInTheNextLife) {
  const Loc loc = Write("a.py", "class C:\n    def m(self):\n        self.x = 1\n");
  EXPECT_EQ(Value(loc, "C", "m"), ":s2;:mC.m(self)");
  EXPECT_NE(Value(loc, "C", "x", true), "-");
  EXPECT_EQ(Value(loc, "Nowhere", "x"), "-");
  EXPECT_EQ(FilesScanned(), 1U);
  Start();
  const Loc again = _fEngine->Locations().GetLocationForPath(Path("a.py"));
  EXPECT_EQ(Value(again, "C", "m"), ":s2;:mC.m(self)");
  EXPECT_EQ(Value(again, "Nowhere", "x"), "-");
  EXPECT_EQ(FilesScanned(), 0U);
}

TEST_F(EngineTest, AChangeOnDiskIsFollowedAndScopesThatAreGoneGo) {
  const Loc loc = Write("a.py", "def f():\n    x = 1\n");
  EXPECT_NE(Value(loc, "f", "x"), "-");
  Write("a.py", "def g():\n    y = 1\n");
  _fEngine->Files().CheckWatchedFiles();
  Settle();
  EXPECT_EQ(Value(loc, "f", "x"), "-");
  EXPECT_NE(Value(loc, "g", "y"), "-");
  EXPECT_EQ(FilesScanned(), 2U);
}

TEST_F(EngineTest, AChangeThatNobodyToldOfIsNoticedInTheNextLife) {
  const Loc loc = Write("a.py", "x = 1\n");
  EXPECT_EQ(Value(loc, "", "x"), ":s1;:lint");
  Write("a.py", "x = ''\n");
  Start();
  EXPECT_EQ(Value(_fEngine->Locations().GetLocationForPath(Path("a.py")), "", "x"), ":s1;:lstr");
  EXPECT_EQ(FilesScanned(), 1U);
}

TEST_F(EngineTest, WhatCannotBeReadIsReportedOnceForEachContent) {
  const Loc gone = _fEngine->Locations().GetLocationForPath(Path("gone.py"));
  const Loc bad = Write("bad.py", "# coding: no-such-encoding\n");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Value(bad, "", "x"), "-");
    _fEngine->Scans().RequestFile(gone);
    Settle();
  }
  ASSERT_EQ(_fFailures.size(), 2U);
  EXPECT_NE(_fFailures[0].find("bad.py"), std::string::npos) << _fFailures[0];
  EXPECT_NE(_fFailures[1].find("gone.py"), std::string::npos) << _fFailures[1];
  Write("bad.py", "x = 1\n");
  _fEngine->Files().CheckWatchedFiles();
  EXPECT_EQ(Value(bad, "", "x"), ":s1;:lint");
}

TEST_F(EngineTest, AnOpenBufferHidesTheDiskAndIsWrittenOnlyAfterItWasSaved) {
  const Loc loc = Write("a.py", "x = 1\n");
  EXPECT_EQ(Value(loc, "", "x"), ":s1;:lint");
  _fEngine->Cache().WriteToDatabase();
  COpenBuffer& buffer = _fEngine->Buffers().Open(loc);
  buffer.SetText("x = ''\n");
  Settle();
  EXPECT_EQ(Value(loc, "", "x"), ":s1;:lstr");
  _fEngine->Cache().WriteToDatabase();
  const auto rows = _fEngine->Database().ReadScopeDataRecords(
      loc, {Text(kNamesScan)}, {Text(kModuleScopeName)}, GetFileDiskTime(Path("a.py")));
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_NE(rows[0].data.find("lint"), std::string::npos) << "the edit was written";
  // Forgetting the edit brings the disk back.
  _fEngine->CloseBuffer(loc);
  EXPECT_EQ(Value(loc, "", "x"), ":s1;:lint");

  _fEngine->Buffers().Open(loc).SetText("x = 1.5\n");
  Settle();
  _fEngine->Buffers().Save(loc);
  _fEngine->Scans().RequestFile(loc);
  Settle();
  EXPECT_EQ(Value(loc, "", "x"), ":s1;:lfloat");
  Start();
  EXPECT_EQ(Value(_fEngine->Locations().GetLocationForPath(Path("a.py")), "", "x"), ":s1;:lfloat");
  EXPECT_EQ(FilesScanned(), 0U);
}

TEST_F(EngineTest, AStubAddsToWhatItsFileSays) {
  Write("a.pyi", "x: int\n");
  const Loc loc = Write("a.py", "x = make()\n");
  const std::string merged = Value(loc, "", "x");
  EXPECT_NE(merged.find(":tint"), std::string::npos) << merged;
  EXPECT_NE(merged.find(":Cmake"), std::string::npos) << merged;
}

}  // namespace
}  // namespace pysource::standalone
