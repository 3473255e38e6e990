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

TEST_F(InfoCacheTest, LookingMakesNoEntryWatchesNothingAndAsksNobody) {
  EXPECT_EQ(Cache().GetDiskModTimeUsed(kC, false), std::nullopt);
  EXPECT_EQ(Cache().GetDiskModTimeUsed(kC, true), 2.0);
  EXPECT_EQ(fHost.fCache->GetPerFile(kC, false), nullptr);
  EXPECT_THAT(fHost.fSavableMgr.fWatched, IsEmpty());
  EXPECT_THAT(TakeCalls(), IsEmpty());
}

TEST_F(InfoCacheTest, NewScanNamesClearAndThePresentOnesDoNot) {
  Scan({.loc = kA, .scope = "f"});
  EXPECT_THROW(Cache().SetScanNames({":names"}), CValueError);
  EXPECT_THROW(Cache().SetScanNames({":names", ":attrs", ":name"}), CValueError) << "a prefix";
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
  EXPECT_EQ(Cache().UsedScopeCount(), 40U) << "a small file is read whole";
  EXPECT_EQ(Read(kB, "f7"), "x=:s1 needs={}");
  EXPECT_EQ(Cache().UsedScopeCount(), 90U) << "of a large one 50, the module scope among them";
  EXPECT_NE(Read(kB, ""), "None needs={}");
  EXPECT_EQ(Db().CallCount("ReadScopeDataRecords"), 2U);
}

TEST_F(InfoCacheTest, ARequestNamesAFileAndBringsAnEmptyReport) {
  CNeedsScanDict full;
  full.Set({kA, "f"}, {});
  EXPECT_THROW(Cache().GetScopeInfo(kA, "f", true, &full), CAssertionError);
  EXPECT_THROW(Cache().GetScopeInfo(nullptr, "f"), CAssertionError);
  SetAssertionsActive(false);
  EXPECT_EQ(Cache().GetScopeInfo(nullptr, "f"), nullptr);
}

TEST_F(InfoCacheTest, ResultsAreOfTheScanThatIsNamed) {
  const auto info = MakeRecord({.loc = kA, .scope = "f"});
  EXPECT_THROW(Cache().AddScopeInfoListForSingleScan(kB, "f", ":names", {info}), CAssertionError);
  EXPECT_THROW(Cache().AddScopeInfoListForSingleScan(kA, "f", "names", {info}), CAssertionError);
  EXPECT_EQ(Standing(info->key), "");
  Cache().AddScopeInfo(info);
  Cache().AddDepKeysToNeedsScan({info->key});
  Cache().FinishedWithScans(kA, "*", "*");
  EXPECT_EQ(Standing(info->key), "MNL") << "scans have no wildcard";
  // Equal, but another location object: the record goes where the equal one is.
  static const fakes::CFakeLocation twin(kA->fUrl);  // outlives the cache, which keeps it
  EXPECT_TRUE(Cache().AddScopeInfo(MakeRecord({.loc = &twin, .scope = "f", .x = ":s5"})));
  EXPECT_EQ(Entry(kA)->serialized_data_dict.Find(Text("f"))->size(), 1U);
}

TEST_F(InfoCacheTest, IdleCallsWriteMany) {
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
}

TEST_F(InfoCacheTest, ScopesOfAFileThatHasLeftAreNamedAndGo) {
  Store(kA, 2);
  Cache().WriteToDatabase();
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

TEST_F(InfoCacheTest, Queries) {
  const auto module = MakeRecord({.loc = kA, .scope = ""});
  module->SetInfoBytes("C", ":cC(C);:s1");
  module->SetInfoBytes("f", ":Ff(x);:Ff;:ios");
  // Neither the module scope nor an instance scope is a class, whatever has their name.
  module->SetInfoBytes("", ":cNone()");
  module->SetInfoBytes("C:", ":cInstance()");
  const auto body = MakeRecord({.loc = kA, .scope = "C"});
  body->SetInfoBytes("m", ":mC.m(self);:fos path;:cC(C)");  // names its own scope
  for (const CScopeInfoPtr& info : {module, body}) {
    Cache().AddScopeInfoListForSingleScan(kA, info->for_scope, ":names", {info});
  }
  for (const Text scope : {"C#2", "C:", "bound nowhere", "no such scope.D"}) {
    Scan({.loc = kA, .scope = scope});
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

// An answer that is given while a service is asked the same goes when the service answers, and so
// do the shortcuts to what was built on it.
TEST_F(InfoCacheTest, TheLaterAnswerOfAServiceReplacesTheOneInBetween) {
  for (const TextView scope : {"f", "g"}) {
    Scan({.loc = kA, .scope = Text(scope)});
    Scan({.loc = kB, .scope = Text(scope), .x = ":s2"});
  }
  Cache().WriteToDatabase();
  bool has_told = false;
  const auto read_in_between = [&] {
    if (!std::exchange(has_told, true)) {
      Read(kA, "g");
      Read(kA, "g");
      fHost.fFactory.fSecondary.clear();
    }
  };
  for (std::function<void()>* const service :
       {&fHost.fSavableMgr.fOnAsked, &fHost.fFactory.fOnAsked}) {
    fHost.fFactory.fSecondary = {{kA, {kB}}};
    Restart();
    has_told = false;
    *service = read_in_between;
    Printed([&] { Read(kA, "f"); });
    *service = [] {};
    Cache().CheckInvariants();
  }
  EXPECT_EQ(Read(kA, "g"), "x=:s1 needs={}") << "merged with files that are secondary no more";
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
