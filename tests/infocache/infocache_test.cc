// The cache case by case: orders of calls and signals, counts of database calls, limits, failures.
// What a naive model can tell as well is left to random_test.cc.
#include "pysource/scopeinfo/infocache/infocache.h"

#include <array>

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/scopeinfo/records/vocabulary.h"
#include "tests/fakes/cachehost.h"

namespace pysource::scopeinfo {
namespace {

using fakes::KeyOf;
using fakes::MakeRecord;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class InfoCacheTest : public fakes::CCacheTest {
 protected:
  InfoCacheTest() : _fDevelopmentRun(SetDevelopmentRun(false)) {}
  ~InfoCacheTest() override { SetDevelopmentRun(_fDevelopmentRun); }

  // Scans so many scopes of the file, its module scope among them, and starts afresh.
  void Store(Loc loc, size_t scopes) {
    for (size_t i = 0; i < scopes; ++i) {
      Scan({.loc = loc, .scope = i == 0 ? "" : "f" + std::to_string(i)});
    }
    Cache().ChangeScansDone(loc, ":names", true);
  }
  void Restart(CInfoCacheLimits limits = {}) {
    fHost.Restart(limits);
    TakeEvents();
    TakeCalls();
  }
  void EmitExternalChange(std::initializer_list<std::pair<Loc, DiskTime>> changes) {
    CLocMtimeDict changed;
    for (const auto& [loc, time] : changes) {
      changed.Set(loc, time);
    }
    fHost.fSavableMgr.emit(kExternalFilesChanged, changed);
  }
  void EmitSavePoint(Loc loc, bool not_modified, DiskTime time, bool read = true) {
    fakes::CFakeSavable savable(loc);
    savable.fInitialReadCompleted = read;
    savable.fModTime = time;
    savable.emit(kSavePoint, not_modified);
  }
  // The events of `run`, oldest first.
  std::vector<Text> Events(const std::function<void()>& run) {
    TakeEvents();
    run();
    return TakeEvents();
  }

 private:
  const bool _fDevelopmentRun;
};

TEST_F(InfoCacheTest, TheDiskTimeOfAFile) {
  fakes::CFakeCacheManager& buffers = fHost.fCacheMgr;
  EXPECT_EQ(Cache().GetDiskMTime(kA), 2.0);
  buffers.fBuffers[kA] = {};
  buffers.fBuffers[kA].fModTime = 5.0;
  EXPECT_EQ(Cache().GetDiskMTime(kA), 5.0) << "of the last read or write";
  buffers.fBuffers[kA].fModified = true;
  EXPECT_EQ(Cache().GetDiskMTime(kA), kFileModifiedInMemoryMtime);
  fHost.TimeOf(kB) = 0;
  EXPECT_EQ(Cache().GetDiskMTime(kB), kFileDoesNotExistMtime);
  fakes::CCacheHost::Fake(kC).fAsync = true;
  fHost.fSavableMgr.fAsked.clear();
  EXPECT_EQ(Cache().GetDiskMTime(kC), kFileUnknownOnDiskMtime) << "not looked at yet";
  EXPECT_THAT(fHost.fSavableMgr.fAsked, IsEmpty());
  kC->fInspectTime = 1;
  EXPECT_EQ(Cache().GetDiskMTime(kC), 2.0);

  // Looking makes no entry, watches nothing and asks nobody.
  EXPECT_EQ(Cache().GetDiskModTimeUsed(kC, false), std::nullopt);
  EXPECT_EQ(Cache().GetDiskModTimeUsed(kC, true), 2.0);
  EXPECT_EQ(fHost.fCache->GetPerFile(kC, false), nullptr);
  EXPECT_THAT(fHost.fSavableMgr.fWatched, IsEmpty());
  EXPECT_THAT(TakeCalls(), IsEmpty());
  Entry(kA);
  EXPECT_THAT(TakeCalls(), IsEmpty()) << "an edited file has no part in the database";
  EXPECT_THAT(fHost.fSavableMgr.fWatched, ElementsAre(kA));
}

TEST_F(InfoCacheTest, NewScanNamesClearAndThePresentOnesDoNot) {
  Scan({.loc = kA, .scope = "f"});
  EXPECT_THROW(Cache().SetScanNames({":names"}), CValueError);
  EXPECT_THAT(Events([&] { Cache().SetScanNames({":names", ":attrs"}); }), IsEmpty());
  EXPECT_THAT(Events([&] {
                Cache().SetScanNames({":names", ":more"});
              }),
              ElementsAre("scopes-modified {a.py: {*}}"));
  EXPECT_THAT(Cache().DbgGetPerFileDict(), SizeIs(0));
}

TEST_F(InfoCacheTest, OneReadBringsInTheNeighbours) {
  Store(kA, 40);
  Store(kB, 400);
  Cache().WriteToDatabase();
  Restart();
  EXPECT_EQ(Read(kA, "f7"), "x=:s1 needs={}");
  EXPECT_EQ(Db().CallCount("ReadScopeDataRecords"), 1U);
  EXPECT_EQ(Cache().UsedScopeCount(), 40U) << "a small file is read whole";
  for (int i = 1; i < 40; ++i) {
    Read(kA, "f" + std::to_string(i));
  }
  EXPECT_EQ(Db().CallCount("ReadScopeDataRecords"), 1U);
  EXPECT_EQ(Read(kB, "f7"), "x=:s1 needs={}");
  EXPECT_EQ(Cache().UsedScopeCount(), 90U) << "of a large one 50, the module scope among them";
  EXPECT_NE(Read(kB, ""), "None needs={}");
  EXPECT_EQ(Db().CallCount("ReadScopeDataRecords"), 2U);
  TakeCalls();
  EXPECT_EQ(Read(kB, "f7"), "x=:s1 needs={}");
  EXPECT_EQ(Read(kB, "unknown"), "None needs={}") << "the primary scan is done";
  EXPECT_THAT(TakeCalls(), IsEmpty());
  EXPECT_THAT(Cache().GetMultipleScopeInfos(kB, {}), IsEmpty());
  EXPECT_THAT(TakeCalls(), IsEmpty());
  std::vector<Text> many;
  for (int i = 0; i < 400; ++i) {
    many.push_back("f" + std::to_string(i));
  }
  EXPECT_EQ(Cache().GetMultipleScopeInfos(kB, many)[399]->GetInfoBytes("x"), ":s1");
  EXPECT_EQ(Db().CallCount("ReadScopeDataRecords"), 1U);

  // The module scope of a large file comes alone; a full cache reads what is asked for alone.
  Restart();
  Read(kB, "");
  EXPECT_EQ(Cache().UsedScopeCount(), 1U);
  Restart({.kMaxInfoCount = 2, .kMaxForAllScopeRead = 50});
  Read(kB, "f1");
  EXPECT_EQ(Cache().UsedScopeCount(), 2U) << "room for two: the module scope rides along";
  Read(kB, "f2");
  EXPECT_THAT(TakeCalls().back(), HasSubstr("['f2'"));
  EXPECT_LE(Cache().UsedScopeCount(), 3U);
}

TEST_F(InfoCacheTest, WhatIsToBeScanned) {
  EXPECT_EQ(Read(kA, "f"), "None needs={a.py:f {:names}}");
  fakes::CCacheHost::Fake(kB).fExists = false;
  EXPECT_EQ(Read(kB, "f"), "None needs={}") << "no content, no scan";
  fHost.fCacheMgr.fBuffers[kC].fModified = true;
  EXPECT_EQ(Read(kC, "f"), "None needs={c.py:f {:names}}");
  EXPECT_EQ(fakes::CCacheHost::Fake(kC).fTimesAsked, 0) << "unsaved changes are content";
  CNeedsScanDict full;
  full.Set({kA, "f"}, {});
  EXPECT_THROW(Cache().GetScopeInfo(kA, "f", true, &full), CAssertionError);
  EXPECT_THROW(Cache().GetScopeInfo(nullptr, "f"), CAssertionError);
  SetAssertionsActive(false);
  EXPECT_EQ(Cache().GetScopeInfo(nullptr, "f"), nullptr);
  SetAssertionsActive(true);

  // A stored answer repeats its report, and takes on the time of the file.
  Scan({.loc = kA, .scope = "f"});
  Scan({.loc = kA, .scope = "f", .scan = ":attrs", .x = ":s2", .mtime = 2.0});
  Cache().AddDepKeysToNeedsScan({KeyOf({.loc = kA, .scope = "f", .scan = ":attrs"})});
  Cache().AddScopeInfo(MakeRecord({.loc = kA, .scope = "f", .x = ":s3"}));
  EXPECT_EQ(Read(kA, "f"), "x=:s3 needs={a.py:f {:attrs}}");
  EXPECT_EQ(Read(kA, "f"), "x=:s3 needs={a.py:f {:attrs}}");
  EXPECT_EQ(Cache().MergedInfoCount(), 1U);
  // The scan that it asked for finds what was found before: the answer is made anew all the same.
  EXPECT_THAT(Events([&] { Scan({.loc = kA, .scope = "f", .scan = ":attrs", .x = ":s2"}); }),
              IsEmpty());
  EXPECT_EQ(Read(kA, "f"), "x=:s3;:s2 needs={}");
}

TEST_F(InfoCacheTest, SecondaryFilesTakePart) {
  const Loc stub = fHost.File("a.pyi");
  fHost.fFactory.fSecondary[kA] = {stub};
  EXPECT_EQ(Read(kA, "f"), "None needs={a.py:f {:names}, a.pyi:f {:names}}");
  EXPECT_THAT(Events([&] { Scan({.loc = stub, .scope = "f"}); }),
              ElementsAre("scopes-modified {a.py: {f}, a.pyi: {f}}"));
  EXPECT_EQ(Read(kA, "f"), "x=:s1 needs={a.py:f {:names}}") << "the stub answers alone";
  EXPECT_EQ(Read(kA, "f", false), "None needs={a.py:f {:names}}");
  Scan({.loc = kA, .scope = "f", .x = ":s2"});
  EXPECT_EQ(Read(kA, "f"), "x=:Ufile:///src/a.pyi :Sf :s1;:s2 needs={}");
  EXPECT_EQ(Read(kA, "f", false), "x=:s2 needs={}");
  EXPECT_EQ(Cache().MergedInfoCount(), 2U);
  EXPECT_EQ(fHost.fFactory.fAsked.size(), 1U);
  Scan({.loc = stub, .scope = "C:"});
  EXPECT_THAT(Cache().GetAllScopeNames(kB), IsEmpty());
  EXPECT_THAT(Cache().GetAllScopeNames(kA, true), ElementsAre("f"));
  EXPECT_THAT(Cache().GetAllScopeNames(stub, true), SizeIs(2));
  fHost.fFactory.fSecondary[kA] = {};
  fHost.fFactory.emit(kImportResolutionChanged);
  EXPECT_EQ(Read(kA, "f"), "x=:s2 needs={}");
  EXPECT_EQ(Cache().MergedInfoCount(), 1U) << "with and without are one, without secondary files";
}

TEST_F(InfoCacheTest, AScanReplacesWhatItFoundBefore) {
  const fakes::CRecordSpec kDependent{
      .loc = kB, .scope = "g", .seen = {{{kA, "f"}, 2.0}, {{kA, "h"}, 2.0}}};
  Scan(kDependent);
  EXPECT_THAT(
      Events([&] {
        Cache().AddScopeInfoListForSingleScan(
            kA, "f", ":names",
            {MakeRecord({.loc = kA, .scope = "f"}),
             MakeRecord({.loc = kC, .scope = "h", .scanned_loc = kA, .scanned_scope = "f"})});
      }),
      ElementsAre("needs-scan-added {(b.py, g, :names)} None",
                  "scopes-modified {a.py: {f}, c.py: {h}}"));
  EXPECT_EQ(Standing(KeyOf(kDependent)), "MNL");
  EXPECT_THAT(Events([&] { Scan({.loc = kA, .scope = "f"}); }),
              ElementsAre("scopes-modified {c.py: {h}}"))
      << "found no more";
  Cache().WriteToDatabase();
  EXPECT_EQ(Standing(KeyOf({.loc = kA, .scope = "f"})), "MDL");
  EXPECT_THAT(Events([&] { Scan({.loc = kA, .scope = "f"}); }), IsEmpty());
  EXPECT_EQ(Standing(KeyOf({.loc = kA, .scope = "f"})), "MWL") << "queued, changed or not";
  EXPECT_THAT(Events([&] { Cache().AddScopeInfoListForSingleScan(kA, "f", ":names", {}); }),
              ElementsAre("scopes-modified {a.py: {f}}"));
  EXPECT_EQ(Standing(KeyOf({.loc = kA, .scope = "f"})), "");
  EXPECT_THROW(Cache().AddScopeInfoListForSingleScan(kB, "f", ":names",
                                                     {MakeRecord({.loc = kA, .scope = "f"})}),
               CAssertionError);
  EXPECT_THROW(Cache().AddScopeInfoListForSingleScan(kA, "f", "names",
                                                     {MakeRecord({.loc = kA, .scope = "f"})}),
               CAssertionError)
      << "no name of a scan";
  EXPECT_EQ(Standing(KeyOf({.loc = kA, .scope = "f"})), "");
  // A scan that has finished without renewing its records: their scopes are gone.
  EXPECT_THAT(Events([&] { Cache().FinishedWithScans(kC, "*", ":names"); }), IsEmpty());
  EXPECT_THAT(Events([&] { Cache().FinishedWithScans(kB, "*", ":attrs"); }), IsEmpty());
  EXPECT_THAT(Events([&] { Cache().FinishedWithScans(kB, "*", "*"); }), IsEmpty());
  EXPECT_THAT(Events([&] { Cache().FinishedWithScans(kB, "*", ":names"); }),
              ElementsAre("scopes-modified {b.py: {g}}"));
  EXPECT_EQ(Standing(KeyOf(kDependent)), "");
}

TEST_F(InfoCacheTest, ARecordIsAsOldAsItsContent) {
  Scan({.loc = kA, .scope = "f"});
  Scan({.loc = kA, .scope = "g"});
  EXPECT_FALSE(
      Cache().AddScopeInfo(MakeRecord({.loc = kA, .scope = "f", .x = ":s2", .mtime = 9.0})));
  fHost.TimeOf(kA) = 9.0;
  EXPECT_THAT(Events([&] {
                EXPECT_TRUE(Cache().AddScopeInfo(
                    MakeRecord({.loc = kA, .scope = "f", .x = ":s2", .mtime = 9.0})));
              }),
              ElementsAre("needs-scan-added {(a.py, *, :attrs), (a.py, *, :names)} 2",
                          "scopes-modified {a.py: {f}}"))
      << "newer than the entry: the file moves on";
  EXPECT_EQ(Standing(KeyOf({.loc = kA, .scope = "f"})), "MWL");
  EXPECT_EQ(Standing(KeyOf({.loc = kA, .scope = "g"})), "MNL");
  fHost.fCacheMgr.fBuffers[kA].fModified = true;
  EXPECT_FALSE(
      Cache().AddScopeInfo(MakeRecord({.loc = kA, .scope = "f", .x = ":s3", .mtime = 2.0})));
  EXPECT_TRUE(
      Cache().AddScopeInfo(MakeRecord({.loc = kA, .scope = "f", .x = ":s3", .mtime = -1.0})));
  EXPECT_TRUE(Cache().AddScopeInfo(MakeRecord({.loc = kA, .scope = "f", .x = ":s4"})));
  EXPECT_FALSE(Cache().AddScopeInfo(MakeRecord({.loc = kA, .scope = "f", .x = ":s4"})));
  // Equal, but another location object: the record goes where the equal one is.
  const fakes::CFakeLocation twin(kA->fUrl);
  EXPECT_TRUE(Cache().AddScopeInfo(MakeRecord({.loc = &twin, .scope = "f", .x = ":s5"})));
  EXPECT_EQ(Entry(kA)->serialized_data_dict.Find(Text("f"))->size(), 1U);
  Cache().RemoveScopeInfoSeq(
      {MakeRecord({.loc = kA, .scope = "f"}), CScopeInfoToRemove{kA, "g", kA, "g"}});
  EXPECT_EQ(Entry(kA)->GetSerializedDataCount(), 0U);
  Cache().CheckInvariants();
}

TEST_F(InfoCacheTest, IdleCallsWriteManyAndTrimWhenNothingIsToBeWritten) {
  struct {
    size_t to_write;
    size_t could_not;
    size_t saves;
  } const kCases[] = {{50, 0, 0}, {51, 0, 1}, {60, 20, 0}};
  for (const auto& [to_write, could_not, saves] : kCases) {
    fHost.fStore->files.clear();
    Restart();
    for (size_t i = 0; i < to_write; ++i) {
      if (i == could_not && i != 0) {
        Db().fFailSaves = 1;
        Cache().WriteToDatabase();
      }
      Scan({.loc = i < could_not ? kB : kA, .scope = "f" + std::to_string(i)});
    }
    EXPECT_EQ(Cross()._fAllCouldNotWriteInfoKeys.size(), could_not);
    TakeCalls();
    fWorld.fLoop.RunIdle();
    fWorld.fLoop.Advance(10000);
    EXPECT_EQ(Db().CallCount("SaveDataForFile"), saves) << to_write << " " << could_not;
    EXPECT_EQ(Cache().UsedScopeCount(), to_write) << "nothing is trimmed";
  }
  for (const bool development_run : {false, true}) {
    SetDevelopmentRun(development_run);
    fHost.fStore->files.clear();
    Restart({.kMaxInfoCount = 100, .kMaxForAllScopeRead = 5});
    Store(kB, 1);
    Store(kA, 99);
    const auto idle = [&] {
      Cache().WriteToDatabase();
      Cache().WriteToDatabase();
      fWorld.fLoop.RunIdle();
    };
    idle();
    EXPECT_EQ(Cache().UsedScopeCount(), 100U) << "as many as there may be";
    Scan({.loc = kA, .scope = "more"});
    idle();
    EXPECT_EQ(Cache().UsedScopeCount(), 75U) << "down to three quarters";
    EXPECT_TRUE(Cache().DbgGetPerFileDict().Contains(kA));
    Cache().CheckInvariants();
  }
  // Scans done that could not be written keep the entry when its last scope is trimmed.
  for (const bool unwritten : {true, false}) {
    fHost.fStore->files.clear();
    Restart({.kMaxInfoCount = 1, .kMaxForAllScopeRead = 1});
    Scan({.loc = kA, .scope = ""});
    Scan({.loc = kB, .scope = ""});
    Cache().WriteToDatabase();
    Cache().ChangeScansDone(kA, ":names", true);
    if (!unwritten) {
      Cache().WriteToDatabase();
    }
    fWorld.fLoop.RunIdle();
    EXPECT_EQ(Cache().UsedScopeCount(), 0U);
    EXPECT_EQ(Cache().DbgGetPerFileDict().Contains(kA), unwritten);
    EXPECT_EQ(fHost.fSavableMgr.fWatched.contains(kA), unwritten);
    EXPECT_FALSE(fHost.fSavableMgr.fWatched.contains(kB));
  }
}

TEST_F(InfoCacheTest, AReadMakesRoomAndThrowsNothingUnwrittenAway) {
  const CInfoCacheLimits limits{.kMaxInfoCount = 10, .kMaxForAllScopeRead = 3};
  Store(kA, 9);
  Store(kB, 4);
  Cache().WriteToDatabase();
  Restart(limits);
  for (int i = 0; i < 9; ++i) {
    Scan({.loc = kC, .scope = "C" + std::to_string(i)});
  }
  Read(kA, "f1");
  EXPECT_EQ(Cross()._fAllToWriteInfoKeys.size(), 9U) << "the whole order is gone through";
  Cache().WriteToDatabase();
  Read(kC, "C8");
  Read(kB, "f1");
  EXPECT_LE(Cache().UsedScopeCount(), 4U);
  EXPECT_TRUE(Cache().DbgGetPerFileDict().Contains(kB)) << "the file that is read stays";

  // An instance scope goes with its class unless it is unwritten. What the file's other scopes wait
  // for keeps the file.
  Restart(limits);
  Scan({.loc = kC, .scope = "C"});
  Cache().WriteToDatabase();
  Scan({.loc = kC, .scope = "C:"});
  Scan({.loc = kC, .scope = "D"});
  for (int i = 0; i < 6; ++i) {
    Scan({.loc = kB, .scope = "g" + std::to_string(i)});
  }
  Read(kA, "f1");
  EXPECT_EQ(Standing(KeyOf({.loc = kC, .scope = "C:"})), "MWL");

  // Pairs of a file that has left hold nothing and stand in nobody's way.
  Restart({.kMaxInfoCount = 4, .kMaxForAllScopeRead = 1});
  const Loc left = fHost.File("left.py");
  for (const Text scope : {"C", "D", "E"}) {
    Scan({.loc = left, .scope = scope, .scan = ":attrs"});
  }
  Cache().ClearFiles({left}, false);
  EXPECT_EQ(Cache().UsedScopeCount(), 3U);
  EXPECT_THAT(Printed([&] { Read(kA, "f1"); }),
              ElementsAre("why Location('file:///src/left.py') ['E', 'D']"));
  EXPECT_EQ(Read(kA, "f1"), "x=:s1 needs={}");
}

TEST_F(InfoCacheTest, WritingAndItsFailures) {
  Store(kA, 2);
  Scan({.loc = kB, .scope = "f"});
  const CScopeInfoKey key = KeyOf({.loc = kA, .scope = "f1"});
  TakeCalls();
  Cache().WriteToDatabase({kC});
  EXPECT_THAT(TakeCalls(), IsEmpty());
  Db().fFailSaves = 1;
  Cache().WriteToDatabase();
  EXPECT_THAT(TakeCalls(), ElementsAre("SaveDataForFile file:///src/a.py 2 records ':names' 2.0",
                                       "SaveDataForFile file:///src/b.py 1 records '' 2.0"));
  EXPECT_EQ(Standing(key), "MWCL");
  EXPECT_TRUE(Entry(kA)->fScansDoneNeedsToBeWritten);
  Cache().WriteToDatabase();
  EXPECT_THAT(TakeCalls(), ElementsAre("SaveDataForFile file:///src/a.py 2 records ':names' 2.0"));
  EXPECT_EQ(Standing(key), "MDL");
  Cache().WriteToDatabase();
  EXPECT_THAT(TakeCalls(), IsEmpty());
  Cache().ChangeScansDone(kA, ":attrs", true);
  Cache().WriteToDatabase();
  EXPECT_THAT(TakeCalls(),
              ElementsAre("SaveDataForFile file:///src/a.py 0 records ':attrs,:names' 2.0"));

  // What cannot be written: alone it is not saved; of the primary scan it takes the scans back.
  Scan({.loc = kB, .scope = "g", .incomplete = true});
  Cache().WriteToDatabase({kB});
  EXPECT_THAT(TakeCalls(), IsEmpty());
  EXPECT_EQ(Standing(KeyOf({.loc = kB, .scope = "g"})), "MWCL");
  Scan({.loc = kA, .scope = "f1", .x = ":s2"});
  Scan({.loc = kA, .scope = "h", .incomplete = true});
  EXPECT_THAT(Printed([&] { Cache().WriteToDatabase({kA}); }),
              ElementsAre(HasSubstr("Not writable keys: {CScopeInfoKey(")));
  EXPECT_THAT(TakeCalls(), ElementsAre("SaveDataForFile file:///src/a.py 1 records '' 2.0"));
  EXPECT_EQ(Standing(KeyOf({.loc = kA, .scope = "h"})), "MDL");

  // Nothing is written of what is edited or not there.
  Cache().WriteToDatabase();
  for (const DiskTime time : {-1.0, 0.0}) {
    Scan({.loc = kC, .scope = "f"});
    Entry(kC)->disk_mtime = time;
    TakeCalls();
    Cache().WriteToDatabase({kC});
    EXPECT_THAT(TakeCalls(), IsEmpty());
    EXPECT_EQ(Standing(KeyOf({.loc = kC, .scope = "f"})), "MWL");
  }
}

TEST_F(InfoCacheTest, ThePrimaryScanIsDoneWithItsModuleScope) {
  Scan({.loc = kA, .scope = "f"});
  EXPECT_THAT(
      Printed([&] { EXPECT_THROW(Cache().ChangeScansDone(kA, ":names", true), CAssertionError); }),
      ElementsAre("module scope not in all scope names: Location('file:///src/a.py')",
                  "  all scope names: {'f'}"));
  for (const bool assertions : {true, false}) {
    SetAssertionsActive(assertions);
    SetDevelopmentRun(!assertions);
    Scan({.loc = kA, .scope = "f"});
    EXPECT_THAT(Printed([&] {
                  if (assertions) {
                    EXPECT_THROW(Cache().WriteToDatabase(), CAssertionError);
                  } else {
                    Cache().WriteToDatabase();
                  }
                }),
                SizeIs(assertions ? 2 : 7));
    EXPECT_EQ(Standing(KeyOf({.loc = kA, .scope = "f"})), "MDL") << "what was done stays done";
  }
  SetAssertionsActive(true);
  // A database that says so is not believed.
  fHost.fStore->files[kB] = fHost.fStore->files[kA];
  Restart();
  EXPECT_THAT(Printed([&] { EXPECT_EQ(Read(kA, ""), "None needs={a.py: {:names}}"); }), SizeIs(3));
  // Nor is one that loses the module scope.
  Scan({.loc = kC, .scope = ""});
  Cache().ChangeScansDone(kC, ":names", true);
  Cache().RemoveScopeInfoSeq({CScopeInfoToRemove{kC, "", kC, ""}});
  EXPECT_THAT(Printed([&] { EXPECT_EQ(Read(kC, ""), "None needs={c.py: {:names}}"); }), SizeIs(3));
}

TEST_F(InfoCacheTest, ScansDone) {
  Scan({.loc = kA, .scope = ""});
  Entry(kA)->fScansDone = ":c,:a";
  Cache().ChangeScansDone(kA, ":a", false);
  EXPECT_EQ(Entry(kA)->fScansDone, ":a,:c") << "put in order, nothing removed";
  Cache().ChangeScansDone(kA, ":b", true);
  EXPECT_EQ(Entry(kA)->fScansDone, ":a,:b,:c");
  for (const auto& [before, added, after] : std::vector<std::array<const char*, 3>>{
           {":a,", ":b", ",:a,:b"}, {",:a", ":b", ",:a,:b"}, {":a", "", ",:a"}, {"", "", ""}}) {
    Entry(kB)->fScansDone = before;
    Cache().ChangeScansDone(kB, added, true);
    EXPECT_EQ(Entry(kB)->fScansDone, after) << "an empty name is one too";
  }
  Cache().WriteToDatabase({kA});
  TakeCalls();
  CLocMtimeDict times;
  times.Set(kA, 2.0);
  times.Set(kC, 2.0);
  EXPECT_EQ(*Cache().GetScansDoneForMultipleFiles(times).Find(kA), ":a,:b,:c");
  EXPECT_THAT(TakeCalls(), ElementsAre("GetScansDone {Location('file:///src/c.py'): 2.0}"));
  times.Set(kA, 3.0);
  EXPECT_EQ(Cache().GetScansDoneForMultipleFiles(times).size(), 0U) << "another time";
}

TEST_F(InfoCacheTest, ChangesFromOutside) {
  Store(kA, 2);
  Scan({.loc = kB, .scope = "g", .scanned_loc = kA, .scanned_scope = "f1"});
  EXPECT_THAT(Events([&] { EmitExternalChange({{kC, 5.0}}); }), IsEmpty()) << "nobody's file";
  EXPECT_THAT(Events([&] { EmitExternalChange({{kA, 2.0}}); }), IsEmpty()) << "no change";
  EXPECT_THAT(Events([&] { EmitExternalChange({{kB, 5.0}}); }), IsEmpty()) << "nothing from there";
  EXPECT_THAT(Events([&] {
                EmitExternalChange({{kA, -5.0}});
              }),
              ElementsAre("needs-scan-added {(a.py, *, :attrs), (a.py, *, :names)} 2"));
  EXPECT_EQ(Entry(kA)->disk_mtime, kFileDoesNotExistMtime);
  EXPECT_EQ(Entry(kA)->fScansDone, "");

  // Editing, in a world where the database holds what is not in memory.
  Store(kC, 60);
  Cache().WriteToDatabase();
  Restart();
  Entry(kC);
  EXPECT_THAT(Events([&] { EmitSavePoint(kC, false, 0, false); }), IsEmpty());
  EXPECT_EQ(Entry(kC)->disk_mtime, 2.0) << "not read yet";
  EmitSavePoint(kA, false, 0);
  EXPECT_FALSE(Cache().DbgGetPerFileDict().Contains(kA)) << "nobody's file";
  TakeCalls();
  EXPECT_THAT(Events([&] { EmitSavePoint(kC, false, 0); }), IsEmpty());
  EXPECT_EQ(Entry(kC)->disk_mtime, -1.0);
  EXPECT_EQ(Entry(kC)->GetSerializedDataCount(), 60U) << "what is tied to the disk was read first";
  EXPECT_EQ(Db().CallCount("ReadScopeDataRecords"), 1U);
  EXPECT_THAT(Events([&] { EmitExternalChange({{kC, 7.0}}); }), IsEmpty()) << "edits hide the disk";
  CPySourceAnalysis ana(kC);
  EXPECT_THAT(Events([&] {
                ana.emit(kScopeLogicalsModified, TextSet{"f1", "f2"});
              }),
              ElementsAre("needs-scan-added {(c.py, f1, :names), (c.py, f2, :names)} 1"));
  EmitSavePoint(kC, true, 8.0);
  EXPECT_EQ(Cross()._fAllToWriteInfoKeys.size(), 58U);
  ana.fLogicalCache.fMatchedDiskMTime = 8.0;
  EXPECT_THAT(Events([&] { ana.emit(kScopeLogicalsModified, TextSet{"*"}); }), IsEmpty())
      << "still in step";
  ana.fLogicalCache.fMatchedDiskMTime = 9.0;
  EXPECT_THAT(Events([&] { ana.emit(kScopeLogicalsModified, TextSet{"*"}); }),
              ElementsAre("needs-scan-added {(c.py, *, :attrs), (c.py, *, :names)} 1"));
  EXPECT_THROW(EmitSavePoint(kC, true, 9.0), CAssertionError) << "from disk to disk";
  EXPECT_EQ(Entry(kC)->disk_mtime, 9.0);
}

TEST_F(InfoCacheTest, ChangesOfTheDatabaseByOthers) {
  for (const Loc loc : {kA, kB, kC}) {
    Store(loc, 2);
    Cache().WriteToDatabase();
    Read(loc, "f1");
  }
  EmitSavePoint(kC, false, 0);
  const CLocSet changed{kA, kC};
  EXPECT_THAT(Events([&] { Db().emit(kExternalDbContentsChanged, &changed); }),
              ElementsAre("scopes-modified {a.py: {*}}"));
  TakeCalls();
  EXPECT_EQ(Read(kA, "f1"), "x=:s1 needs={}");
  EXPECT_EQ(Read(kB, "f1"), "x=:s1 needs={}");
  EXPECT_THAT(TakeCalls(),
              ElementsAre(HasSubstr("ReadScopeNames file:///src/a.py"), HasSubstr("GetScansDone"),
                          HasSubstr("ReadScopeDataRecords file:///src/a.py")));
  EXPECT_THAT(Events([&] { Db().emit(kExternalDbContentsChanged, nullptr); }),
              ElementsAre("scopes-modified {a.py: {*}, b.py: {*}}"))
      << "continuity is lost";
  EXPECT_THAT(Printed([&] { Cache().CheckForDatabaseChanges(); }), ElementsAre("0 files changed"));
}

TEST_F(InfoCacheTest, ClearingFiles) {
  EXPECT_THAT(Events([&] { Cache().ClearFiles({}, true); }), ElementsAre("scopes-modified {}"));
  Store(kA, 2);
  Cache().WriteToDatabase();
  Scan({.loc = kA, .scope = "f1", .x = ":s2"});
  // A handler reads what is about to be cleared; nothing of that may stay.
  fHost.fOnEvent = [&] { Read(kA, "f1"); };
  EXPECT_THAT(Events([&] {
                Cache().ClearFiles({kA, kB, kA}, false);
              }),
              ElementsAre("scopes-modified {a.py: {*}}"));
  fHost.fOnEvent = nullptr;
  EXPECT_EQ(Cache().MergedInfoCount(), 0U);
  EXPECT_FALSE(Cache().DbgGetPerFileDict().Contains(kA));
  EXPECT_EQ(Read(kA, "f1"), "x=:s1 needs={}") << "as the database has it";
  // Also when the handler reads a file that nobody had asked for.
  Cache().WriteToDatabase();
  Restart();
  fHost.fOnEvent = [&] { Read(kA, "f1"); };
  Cache().ClearFiles({kA}, true);
  fHost.fOnEvent = nullptr;
  EXPECT_EQ(Read(kA, "f1"), "None needs={a.py:f1 {:names}}");
  Store(kA, 2);
  Cache().WriteToDatabase();
  Read(kA, "f1");

  Db().fFailClears = 1;
  TakeCalls();
  Cache().ClearFiles({kA}, true);
  EXPECT_THAT(TakeCalls(), ElementsAre("ClearInfoForFiles [Location('file:///src/a.py')]",
                                       "SaveDataForFile file:///src/a.py 0 records '' 2.0"));
  EXPECT_TRUE(Entry(kA)->clear_db) << "is tried again";
  Entry(kA)->SetScansDone(":attrs");
  TakeCalls();
  Cache().WriteToDatabase();
  EXPECT_THAT(TakeCalls(), ElementsAre("ClearInfoForFiles [Location('file:///src/a.py')]"))
      << "the scans done wait for the next write";
  Cache().WriteToDatabase();
  EXPECT_THAT(TakeCalls(), ElementsAre("SaveDataForFile file:///src/a.py 0 records ':attrs' 2.0"));
  Entry(kA)->clear_db = true;
  Scan({.loc = kA, .scope = "f1"});
  TakeCalls();
  Cache().WriteToDatabase();
  EXPECT_THAT(TakeCalls(), ElementsAre(HasSubstr("ClearInfoForFiles"), HasSubstr("1 records")));
}

TEST_F(InfoCacheTest, Queries) {
  const auto module = MakeRecord({.loc = kA, .scope = ""});
  module->SetInfoBytes("C", ":cC(C);:s1");
  module->SetInfoBytes("f", ":Ff(x);:Ff;:ios");
  const auto body = MakeRecord({.loc = kA, .scope = "C"});
  body->SetInfoBytes("m", ":mC.m(self);:fos path;:cC(C)");  // names its own scope
  const auto second = MakeRecord({.loc = kA, .scope = "C#2"});
  for (const CScopeInfoPtr& info : {module, body, second}) {
    Cache().AddScopeInfoListForSingleScan(kA, info->for_scope, ":names", {info});
  }
  Scan({.loc = kB, .scope = "", .x = ":cB();:s3"});
  Scan({.loc = kB, .scope = "x"});
  Cache().WriteToDatabase();
  Cache().ClearFiles({kB}, false);
  TakeCalls();
  const auto imports = Cache().GetAllImports({kA, kB});
  ASSERT_EQ(imports.size(), 2U);
  EXPECT_EQ(imports[0].ibytes + imports[1].scope_name + imports[1].ibytes, ":iosC:fos path");
  const auto classes = Cache().GetAllClasses({kB, kA});
  ASSERT_EQ(classes.size(), 3U) << "C and C#2 are one name, and the database adds B";
  EXPECT_EQ(classes[0].ibytes + classes[1].ibytes + classes[2].ibytes, ":cC(C):cC(C):cB()");
  EXPECT_THAT(TakeCalls(), ElementsAre("GetAllImports [Location('file:///src/b.py')] ':names'",
                                       "GetAllClasses [Location('file:///src/b.py')] ':names'"));
  Entry(kB);
  EXPECT_THAT(Cache().GetAllImports({kB}), IsEmpty()) << "from memory alone";
  EXPECT_THAT(Cache().GetAllClasses({kB, kB}), SizeIs(1)) << "unread scopes: each once";
  EXPECT_THAT(Cache().GetAllClasses({}), IsEmpty());
}

TEST_F(InfoCacheTest, AHandlerMayDoAnything) {
  const std::pair<const char*, std::function<void()>> kHandlers[] = {
      {"reads",
       [&] {
         Read(kA, "f");
         Read(kB, "g");
       }},
      {"adds",
       [&] {
         fHost.fOnEvent = nullptr;
         Scan({.loc = kA, .scope = "f", .x = ":s9"});
       }},
      {"clears",
       [&] {
         fHost.fOnEvent = nullptr;
         Cache().Clear();
       }},
      {"clears the file",
       [&] {
         fHost.fOnEvent = nullptr;
         Cache().ClearFiles({kA}, true);
       }},
      {"destroys", [&] { Cache().destroy(); }},
      {"throws", [&] { throw CValueError("handler"); }},
  };
  for (const auto& [what, handler] : kHandlers) {
    SCOPED_TRACE(what);
    const std::function<void()> kOperations[] = {
        [&] { Scan({.loc = kA, .scope = "f", .x = ":s2"}); },
        [&] {
          fHost.TimeOf(kA) += 1;
          Cache().AddScopeInfo(
              MakeRecord({.loc = kA, .scope = "f", .x = ":s3", .mtime = fHost.TimeOf(kA)}), true);
        },
        [&] {
          EmitExternalChange({{kA, 77.0}});
        },
        [&] { Db().emit(kExternalDbContentsChanged, nullptr); },
        [&] {
          Cache().ClearFiles({kA, kB}, true);
        },
        [&] {
          Cache().ClearFiles({kA, kB}, false);
        },
        [&] { Cache().Clear(); },
        [&] {
          Cache().SetScanNames({":names", ":more"});
        },
    };
    for (const auto& operation : kOperations) {
      const bool moves_the_entry = &operation == &kOperations[1];
      fHost.fStore->files.clear();
      Restart({.kMaxInfoCount = 4, .kMaxForAllScopeRead = 1});
      fHost.TimeOf(kA) = 2.0;
      Scan({.loc = kB, .scope = "g", .seen = {{{kA, "f"}, 2.0}}});
      Scan({.loc = kA, .scope = "f"});
      Cache().WriteToDatabase();
      Read(kA, "f");
      fHost.fOnEvent = handler;
      try {
        operation();
      } catch (const CValueError&) {
        EXPECT_STREQ(what, "throws");
      }
      fHost.fOnEvent = nullptr;
      Cache().CheckInvariants();
      for (const CScopeInfoKey& key : Cross()._fAllInfoKeys) {
        // A record that is added goes into the entry in hand, whatever has become of that.
        EXPECT_TRUE(moves_the_entry || Cache().DbgGetPerFileDict().Contains(key.for_loc()))
            << Repr(key);
      }
    }
  }
}

TEST_F(InfoCacheTest, AnyDatabaseCallMayFail) {
  Store(kA, 3);
  Store(kB, 3);
  Cache().WriteToDatabase();
  for (int good_reads = 0; good_reads < 6; ++good_reads) {
    Restart();
    Db().fFailReads = 1;
    Db().fGoodReads = good_reads;
    fHost.fFactory.fSecondary[kA] = {kB};
    const bool fails = good_reads < 6;
    EXPECT_EQ(fails, [&] {
      try {
        Read(kA, "f1");
      } catch (const CValueError&) {
        return true;
      }
      return false;
    }()) << good_reads;
    Cache().CheckInvariants();
    if (good_reads % 3 == 2) {
      EXPECT_NE(Read(kA, "f1"), "None needs={}") << "a failed read of records is simply done again";
    }
  }
  fHost.fFactory.fSecondary.clear();
  // The last write fails: nothing stays scheduled with a cache that is gone.
  Restart();
  Scan({.loc = kA, .scope = "f"});
  SetDevelopmentRun(true);
  Cache().ChangeScansDone(kA, ":names", true);
  Db().fFailReads = 1;
  Db().fGoodReads = 0;
  EXPECT_THROW(Cache().destroy(), CValueError);
  EXPECT_EQ(fWorld.fLoop.PendingIdleCount(), 1U) << "the first step is the last one";
  fHost.fCache.reset();
  EXPECT_EQ(fWorld.fLoop.PendingIdleCount(), 0U);
}

TEST_F(InfoCacheTest, AReadGoesOnOverTheRecordsThatItBeganWith) {
  Scan({.loc = kA, .scope = "f", .scan = ":attrs", .x = ":s7", .seen = {{{kB, "g"}, 2.0}}});
  Scan({.loc = kA, .scope = "f"});
  Cache().WriteToDatabase();
  Restart();
  bool has_told = false;
  fHost.fSavableMgr.fOnAsked = [&] {
    if (fHost.fSavableMgr.fAsked.back() == kA || std::exchange(has_told, true)) {
      return;
    }
    Scan({.loc = kA, .scope = "f", .x = ":s99"});
    Scan({.loc = kA, .scope = "f", .scan = ":attrs", .scanned_loc = kC, .x = ":s8"});
    const CLocSet changed{kA};
    Db().emit(kExternalDbContentsChanged, &changed);
    EXPECT_EQ(Entry(kA)->GetSerializedDataCount(), 0U);
  };
  EXPECT_EQ(Read(kA, "f"), "x=:s99;:s7;:s8 needs={}");
  fHost.fSavableMgr.fOnAsked = [] {};
}

TEST_F(InfoCacheTest, ScansDoneAreSavedAsTheyWereWhenTheSaveBegan) {
  Store(kA, 1);
  Cache().WriteToDatabase();
  Scan({.loc = kA, .scope = "f"});
  fHost.fStore->files[kA].scans_done = " x";  // by another process
  fHost.fOnEvent = [&] { EXPECT_EQ(Entry(kA)->fScansDone, " x"); };
  bool has_told = false;
  Db().fOnCall = [&] {
    if (!std::exchange(has_told, true)) {
      const CLocSet changed{kA};
      Db().emit(kExternalDbContentsChanged, &changed);
    }
  };
  EXPECT_THROW(Cache().WriteToDatabase(), CAssertionError) << "its records are gone meanwhile";
  EXPECT_EQ(fHost.fStore->files[kA].scans_done, ":names");
  fHost.fOnEvent = nullptr;
  Db().fOnCall = [] {};
  Cache().Clear();
}

// Whatever the host is asked, it may tell of news before it answers, and handlers of these may call
// back in. What the operation in hand makes of that can fall between two states of the world; no
// memory that it holds may go, and a cleared cache is in order.
TEST_F(InfoCacheTest, AServiceMayTellOfNews) {
  const auto read_all = [&] {
    for (const Loc loc : {kA, kB}) {
      for (const TextView scope : {"", "f", "g"}) {
        Read(loc, scope);
        Read(loc, scope);
        Read(loc, scope);
      }
    }
  };
  const std::pair<const char*, std::function<void()>> kNews[] = {
      {"a file changed",
       [&] {
         EmitExternalChange({{kA, 3.0}, {kB, 2.0}});
       }},
      {"a row changed",
       [&] {
         const CLocSet changed{kA, kC};
         Db().emit(kExternalDbContentsChanged, &changed);
       }},
      {"the database was replaced", [&] { Db().emit(kExternalDbContentsChanged, nullptr); }},
      {"a buffer was saved", [&] { EmitSavePoint(kA, true, 2.0); }},
      {"imports changed", [&] { fHost.fFactory.emit(kImportResolutionChanged); }},
  };
  const std::pair<const char*, std::function<void()>> kHandlers[] = {
      {"nobody listens", [] {}},
      {"reads", read_all},
      {"reads and adds",
       [&] {
         read_all();
         Scan({.loc = kA, .scope = "f", .scan = ":attrs", .scanned_loc = kC, .x = ":s7"});
         Scan({.loc = kA, .scope = "new", .x = ":s8"});
       }},
      {"writes", [&] { Cache().WriteToDatabase(); }},
      {"clears", [&] { Cache().Clear(); }},
      {"clears and reads",
       [&] {
         Cache().Clear();
         read_all();
       }},
      {"renames",
       [&] {
         Cache().SetScanNames({":names", ":more-than-fits-into-the-text-itself"});
       }},
  };
  const std::pair<const char*, std::function<void()>> kOperations[] = {
      {"read", [&] { Read(kA, "f"); }},
      {"names", [&] { Cache().GetAllScopeNames(kA, true, true); }},
      {"trim",
       [&] {
         for (const TextView scope : {"", "f", "g"}) {
           Read(kA, scope);
         }
         Scan({.loc = kC, .scope = "u"});
         const CLocSet changed{kA};
         Db().emit(kExternalDbContentsChanged, &changed);
         Read(kB, "f");
       }},
      {"several",
       [&] {
         Cache().GetMultipleScopeInfos(kB, {"f", "g", ""});
       }},
      {"write",
       [&] {
         Scan({.loc = kA, .scope = "f", .x = ":s5"});
         Scan({.loc = kB, .scope = "", .x = ":s5"});
         Cache().ChangeScansDone(kA, ":names", true);
         Cache().WriteToDatabase();
       }},
      {"add",
       [&] {
         Scan({.loc = kB, .scope = "g", .x = ":s6", .seen = {{{kA, "f"}, 2.0}}});
         Scan({.loc = kA, .scope = "f", .x = ":s6"});
       }},
      {"finish", [&] { Cache().FinishedWithScans(kA, kWildcardScope, ":names"); }},
      {"clear",
       [&] {
         Cache().ClearFiles({kA, kB}, true);
       }},
      {"queries",
       [&] {
         Cache().GetAllImports({kA, kB});
         Cache().GetAllClasses({kA, kB});
       }},
  };
  size_t times_told = 0;
  for (const auto& [news, tell] : kNews) {
    for (const auto& [what, handler] : kHandlers) {
      for (const auto& [operation, run] : kOperations) {
        for (int at = 0, asked = 1; at < asked; ++at) {
          SCOPED_TRACE(FormatPercent("%s, %s, %s, %d", {news, what, operation, at}));
          fHost.fStore->files.clear();
          fHost.fFactory.fSecondary = {{kA, {kB}}};
          Restart();
          for (const Loc loc : {kA, kB}) {
            Scan({.loc = loc, .scope = ""});
            Scan({.loc = loc, .scope = "g", .seen = {{{loc, ""}, 2.0}, {{kC, ""}, 2.0}}});
            Scan({.loc = loc, .scope = "f", .scan = ":attrs", .scanned_loc = kC});
            Scan({.loc = loc, .scope = "f", .seen = {{{kC, ""}, 2.0}, {{kB, "g"}, 2.0}}});
          }
          Cache().WriteToDatabase();
          // So few that reads trim.
          Restart({.kMaxInfoCount = 5, .kMaxForAllScopeRead = 1});
          asked = 0;
          const auto on_call = [&, &tell = tell] {
            if (asked++ == at) {
              ++times_told;
              tell();
            }
          };
          fHost.fOnEvent = [&, &handler = handler] {
            if (asked > at) {
              fHost.fOnEvent = nullptr;
              handler();
            }
          };
          Db().fOnCall = fHost.fSavableMgr.fOnAsked = fHost.fFactory.fOnAsked = on_call;
          try {
            Printed(run);
          } catch (const CAssertionError&) {
            // A file that changes while it is being saved, or whose scans are being noted.
          }
          Db().fOnCall = fHost.fSavableMgr.fOnAsked = fHost.fFactory.fOnAsked = [] {};
          fHost.fOnEvent = nullptr;
          Printed(read_all);
          Cache().Clear();
          Cache().CheckInvariants();
        }
      }
    }
  }
  EXPECT_GT(times_told, 1000U);
}

}  // namespace
}  // namespace pysource::scopeinfo
