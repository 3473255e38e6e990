// The engine as a whole: questions that make scans run, files and buffers that change under it, and
// a second life over the same database.
#include "pysource/standalone/engine/engine.h"

#include <gtest/gtest.h>

#include <string>

#include "pysource/standalone/files/contenttime.h"
#include "pysource/standalone/scanner/sourcefile.h"
#include "tests/engine/enginefixture.h"

namespace pysource::standalone {
namespace {

class EngineTest : public CEngineTest {};

TEST_F(EngineTest, AFileThatWasNeverIndexedIsScannedOnceAndNotAgainInTheNextLife) {
  const Loc loc = Write("a.py", "class C:\n    def m(self):\n        self.x = 1\n");
  EXPECT_EQ(Value(loc, "C", "m"), ":s2;:mC.m(self)");
  EXPECT_NE(Value(loc, "C", "x", true), "-");
  EXPECT_EQ(Value(loc, "Nowhere", "x"), "-");
  EXPECT_EQ(FilesScanned(), 1U);
  Start();
  const Loc again = At("a.py");
  EXPECT_EQ(Value(again, "C", "m"), ":s2;:mC.m(self)");
  EXPECT_EQ(Value(again, "Nowhere", "x"), "-");
  EXPECT_EQ(FilesScanned(), 0U);
}

TEST_F(EngineTest, AChangeOnDiskIsFollowedAndScopesThatAreGoneGo) {
  const Loc loc = Write("a.py", "def f():\n    x = 1\n");
  EXPECT_NE(Value(loc, "f", "x"), "-");
  Write("a.py", "def g():\n    y = 1\n");
  fEngine->Files().CheckWatchedFiles();
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
  EXPECT_EQ(Value(At("a.py"), "", "x"), ":s1;:lstr");
  EXPECT_EQ(FilesScanned(), 1U);
}

TEST_F(EngineTest, WhatCannotBeReadIsReportedOnceForEachContent) {
  const Loc gone = At("gone.py");
  const Loc bad = Write("bad.py", "# coding: no-such-encoding\n");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(Value(bad, "", "x"), "-");
    fEngine->Scans().RequestFile(gone);
    Settle();
  }
  ASSERT_EQ(fFailures.size(), 2U);
  EXPECT_NE(fFailures[0].find("bad.py"), std::string::npos) << fFailures[0];
  EXPECT_NE(fFailures[1].find("gone.py"), std::string::npos) << fFailures[1];
  Write("bad.py", "x = 1\n");
  fEngine->Files().CheckWatchedFiles();
  EXPECT_EQ(Value(bad, "", "x"), ":s1;:lint");
}

TEST_F(EngineTest, AnOpenBufferHidesTheDiskAndIsWrittenOnlyAfterItWasSaved) {
  const Loc loc = Write("a.py", "x = 1\n");
  EXPECT_EQ(Value(loc, "", "x"), ":s1;:lint");
  fEngine->Cache().WriteToDatabase();
  COpenBuffer& buffer = fEngine->Buffers().Open(loc);
  buffer.SetText("x = ''\n");
  Settle();
  EXPECT_EQ(Value(loc, "", "x"), ":s1;:lstr");
  fEngine->Cache().WriteToDatabase();
  const auto rows = fEngine->Database().ReadScopeDataRecords(
      loc, {Text(kNamesScan)}, {Text(kModuleScopeName)}, GetFileDiskTime(Path("a.py")));
  ASSERT_EQ(rows.size(), 1U);
  EXPECT_NE(rows[0].data.find("lint"), std::string::npos) << "the edit was written";
  // Forgetting the edit brings the disk back.
  fEngine->CloseBuffer(loc);
  EXPECT_EQ(Value(loc, "", "x"), ":s1;:lint");

  fEngine->Buffers().Open(loc).SetText("x = 1.5\n");
  Settle();
  fEngine->Buffers().Save(loc);
  fEngine->Scans().RequestFile(loc);
  Settle();
  EXPECT_EQ(Value(loc, "", "x"), ":s1;:lfloat");
  Start();
  EXPECT_EQ(Value(At("a.py"), "", "x"), ":s1;:lfloat");
  EXPECT_EQ(FilesScanned(), 0U);
}

TEST_F(EngineTest, AStubAddsToWhatItsFileSays) {
  Write("a.pyi", "x: int\n");
  const Loc loc = Write("a.py", "x = make()\n");
  const std::string merged = Value(loc, "", "x");
  EXPECT_NE(merged.find(":tint"), std::string::npos) << merged;
  EXPECT_NE(merged.find(":Cmake"), std::string::npos) << merged;
}

TEST_F(EngineTest, WhatAClosedBufferSaidOfOtherFilesIsForgotten) {
  const Loc a = Write("a.py", "");
  const Loc b = Write("b.py", "");
  EXPECT_EQ(Value(a, "", "x"), "-");
  fEngine->Buffers().Open(b).SetText("def f():\n    import a\n    a.x = 1\n");
  fEngine->Scans().RequestFile(b);
  Settle();
  EXPECT_NE(Value(a, "", "x"), "-");
  fEngine->CloseBuffer(b);
  Settle();
  EXPECT_EQ(Value(a, "", "x"), "-");
}

TEST_F(EngineTest, AFileThatLeftMemoryAndThenChangedIsNotToldAsItWas) {
  const Loc a = Write("a.py", "");
  const Loc b = Write("b.py", "def f():\n    import a\n    a.x = 1\n");
  EXPECT_EQ(Value(b, "f", "a"), ":s2;:ia");
  EXPECT_NE(Value(a, "", "x"), "-");
  fEngine->Cache().ClearFiles({b}, false);
  Write("b.py", "");
  fEngine->Files().CheckWatchedFiles();
  Settle();
  EXPECT_EQ(Value(a, "", "x"), "-");
  EXPECT_EQ(Value(b, "f", "a"), "-");
}

// Handed over in another order, one record of a scan makes another one stale at once.
TEST_F(EngineTest, EachRecordOfAScanIsHandedOverOnce) {
  const Loc loc = Write("a.py", "");
  Write("b.py", "");
  for (const std::string value : {"1", "''", "1.5"}) {
    Write("a.py", "class C:\n  import b\n  a = b.c = " + value + "\n  def m(self, b=" + value +
                      "):\n    self.x = " + value + "\n");
    fEngine->Scans().RequestFile(loc);
    Settle();
    const CScanRunner::Counts& counts = fEngine->Scans().GetCounts();
    // The module, the class, the method, and what the two set on b and on the instance.
    EXPECT_EQ(counts.records, 5 * counts.files_scanned);
  }
}

TEST_F(EngineTest, AClearedFileIsScannedByAllScans) {
  const Loc loc = Write("a.py", "class C:\n    def m(self):\n        self.x = 1\n");
  EXPECT_NE(Value(loc, "C", "x", true), "-");
  fEngine->Cache().ClearFiles({loc}, true);
  EXPECT_NE(Value(loc, "C", "x", true), "-");
}

TEST_F(EngineTest, ABufferThatIsBehindItsFileDoesNotKeepScansGoing) {
  const Loc loc = Write("a.py", "x = 1\n");
  fEngine->Buffers().Open(loc);
  Write("a.py", "x = ''\n");
  fEngine->Scans().RequestFile(loc);
  int pieces = 0;
  ASSERT_TRUE(fEngine->RunScans([&] { return ++pieces < 100; }));
  EXPECT_EQ(Value(loc, "", "x"), ":s1;:lstr");
}

TEST_F(EngineTest, AScopeThatOnlyTheStubHadCanComeToTheFile) {
  Write("a.pyi", "def f():\n    y: int\n");
  const Loc loc = Write("a.py", "");
  EXPECT_EQ(Value(loc, "f", "x"), "-");
  Write("a.py", "def f():\n    x = 1\n");
  fEngine->Files().CheckWatchedFiles();
  Settle();
  EXPECT_NE(Value(loc, "f", "x"), "-");
}

}  // namespace
}  // namespace pysource::standalone
