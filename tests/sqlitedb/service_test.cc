// The service of the analysis database: the same cases on SQLite and on the fake that stands in for
// it elsewhere, and a random walk that compares the two.

#include <gmock/gmock.h>

#include <algorithm>
#include <random>

#include "pysource/host/repr.h"
#include "tests/fakes/memorydb.h"
#include "tests/fakes/random.h"
#include "tests/sqlitedb/dbworld.h"

namespace pysource::standalone {
namespace {

using fakes::CMemoryAnalysisDb;
using fakes::CMemoryDbStore;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class DbService : public CDbWorld, public testing::WithParamInterface<const char*> {
 protected:
  // Another process on the one database of the test.
  std::unique_ptr<CAnalysisDb> Process() {
    if (Text(GetParam()) == "memory") {
      return std::make_unique<CMemoryAnalysisDb>(_fStore);
    }
    return Open();
  }
  std::unique_ptr<CAnalysisDb> Restarted(std::unique_ptr<CAnalysisDb> db) {
    db.reset();
    return Process();
  }

 private:
  std::shared_ptr<CMemoryDbStore> _fStore = std::make_shared<CMemoryDbStore>();
};

INSTANTIATE_TEST_SUITE_P(, DbService, testing::Values("memory", "sqlite"),
                         [](const auto& param_info) { return Text(param_info.param); });

// Every way in which a record can differ from the plain one.
std::vector<CDatabaseRecord> OddRecords(Loc loc, Loc other, DiskTime time) {
  std::vector<CDatabaseRecord> records;
  const auto add = [&](const Text& scope) -> CDatabaseRecord& {
    records.push_back(MakeRecord(loc, scope, ":names", "data of " + scope, time));
    return records.back();
  };
  add("");
  add("a.no seen").scopes_seen = nullptr;
  add("b.empty seen").scopes_seen = std::make_shared<CScopesSeenDict>();
  add("c.own file at another time").scopes_seen->Set(CScopeRef{loc, "*"}, -1.0);
  add("d.other file too").scopes_seen->Set(CScopeRef{other, "*"}, 0.1 + 0.2);
  auto& foreign = add("e.other file alone");
  foreign.scopes_seen = std::make_shared<CScopesSeenDict>();
  foreign.scopes_seen->Set(CScopeRef{other, "*"}, time);
  add("f.from another file").scanned_loc = other;
  add("g.from no file").scanned_loc = {};
  add("h.from another scope").scanned_scope = "";
  add("i.from no scope").scanned_scope = std::nullopt;
  add("j.empty scan").scan_name = "";
  add("k.equivalences").class_equivs = ":cK(a;b);:cL()";
  records.back().import_equivs = ":ios;:fos path";
  add(Text("l.any\0byte \xFF\xC0;'", 15)).data = Bytes("\0\xFF\0", 3);
  add("m.big").data = Bytes(100000, '\x80');
  return records;
}

TEST_P(DbService, WhatIsStoredComesBackAfterARestart) {
  auto db = Process();
  const Loc loc = File("pkg/a.py");
  const auto records = OddRecords(loc, fLocCache.GetLocation("builtins:"), 5.25);
  ASSERT_TRUE(db->SaveDataForFile(loc, records, ":names,:attrs", 5.25));
  db = Restarted(std::move(db));
  EXPECT_EQ(Lines(db->ReadScopeDataRecords(loc, {"", ":names"}, {"*"}, 5.25)), Lines(records));

  for (const CDatabaseRecord& record : records) {
    EXPECT_EQ(Lines(db->ReadScopeDataRecords(loc, {"", ":names"}, {record.for_scope}, 5.25)),
              Lines({record}));
  }
  CLocMtimeDict times;
  times.Set(loc, 5.25);
  times.Set(File("unknown.py"), 5.25);
  const CScansDoneDict done = db->GetScansDone(times);
  EXPECT_EQ(done.size(), 1U);
  ASSERT_NE(done.Find(loc), nullptr);
  EXPECT_EQ(*done.Find(loc), ":names,:attrs");
}

TEST_P(DbService, RowsAreAskedForByScanScopeAndTime) {
  auto db = Process();
  const Loc loc = File("a.py");
  std::vector<CDatabaseRecord> records;
  for (const Text scope : {"b", "a", "", "a.f"}) {
    records.push_back(MakeRecord(loc, scope, ":names", "n" + scope, 2));
  }
  records.push_back(MakeRecord(loc, "a", ":attrs", "other scan", 2));
  records.push_back(MakeRecord(loc, "only", ":attrs", "other scan", 2));
  records.push_back(MakeRecord(loc, "unnamed", std::nullopt, "no scan", 2));
  ASSERT_TRUE(db->SaveDataForFile(loc, records, "", 2));

  EXPECT_THAT(db->ReadScopeNames(loc, ":names", 2), UnorderedElementsAre("", "a", "a.f", "b"));
  EXPECT_THAT(db->ReadScopeNames(loc, ":attrs", 2), UnorderedElementsAre("a", "only"));
  struct Case {
    const char* reason;
    std::vector<Text> scans;
    std::vector<Text> scopes;
    DiskTime time;
    std::vector<Text> expected;
  };
  for (const Case& c : {
           Case{"sorted by scope, then scan",
                kBothScans,
                {"*"},
                2,
                {"", "a", "a", "a.f", "b", "only"}},
           Case{"one scan", {":names"}, {"*"}, 2, {"", "a", "a.f", "b"}},
           Case{"one scope", kBothScans, {"a"}, 2, {"a", "a"}},
           Case{"several scopes, one of them twice", {":names"}, {"b", "", "b"}, 2, {"", "b"}},
           Case{"a scope that is not there", kBothScans, {"x", "a.f"}, 2, {"a.f"}},
           Case{"no record belongs to a scan of an empty name", {""}, {"*"}, 2, {}},
           Case{"no scan", {}, {"*"}, 2, {}},
           Case{"no scope", kBothScans, {}, 2, {}},
           Case{"another time", kBothScans, {"*"}, 3, {}},
       }) {
    std::vector<Text> scopes;
    for (const auto& record : db->ReadScopeDataRecords(loc, c.scans, c.scopes, c.time)) {
      scopes.push_back(record.for_scope);
    }
    EXPECT_EQ(scopes, c.expected) << c.reason;
  }
  EXPECT_THAT(db->ReadScopeNames(loc, ":names", 3), IsEmpty());
  EXPECT_THAT(db->ReadScopeNames(File("b.py"), ":names", 2), IsEmpty());
}

TEST_P(DbService, ASaveReplacesRowsOfItsKeysAndANewTimeDropsAll) {
  auto db = Process();
  const Loc loc = File("a.py");
  auto replaced = MakeRecord(loc, "f", ":names", "old", 2);
  auto kept = MakeRecord(loc, "f", ":names", "kept", 2);
  kept.scanned_loc = File("b.py");
  ASSERT_TRUE(db->SaveDataForFile(loc, {kept, replaced}, ":names", 2));
  replaced.data = "new";
  ASSERT_TRUE(db->SaveDataForFile(loc, {replaced}, "", 2));
  EXPECT_EQ(AllOf(*db, loc, 2), Lines({replaced, kept}));

  ASSERT_TRUE(db->SaveDataForFile(loc, {}, ":names", 2));
  EXPECT_EQ(AllOf(*db, loc, 2).size(), 2U) << "scans done alone leave the rows";
  ASSERT_TRUE(db->SaveDataForFile(loc, {}, ":names", 3));
  EXPECT_THAT(AllOf(*db, loc, 2), IsEmpty());
  ASSERT_TRUE(db->SaveDataForFile(loc, {}, ":names", 2));
  EXPECT_THAT(AllOf(*db, loc, 2), IsEmpty()) << "dropped rows do not come back with their time";

  ASSERT_TRUE(db->SaveDataForFile(loc, {replaced}, ":names", 2));
  ASSERT_TRUE(db->ClearInfoForFiles({loc, File("unknown.py")}));
  EXPECT_THAT(AllOf(*db, loc, 2), IsEmpty());
  CLocMtimeDict times;
  times.Set(loc, 2);
  EXPECT_TRUE(db->GetScansDone(times).empty());
}

TEST_P(DbService, ClassesAndImportsOfManyFilesComeFromThePrimaryScan) {
  auto db = Process();
  std::vector<Loc> locs;
  for (int i = 0; i < 300; ++i) {
    locs.push_back(File("f" + std::to_string(i) + ".py"));
    auto record = MakeRecord(locs.back(), "", ":names", "d", i + 2);
    record.class_equivs = ":cA" + std::to_string(i) + "(x;y);:cB()";
    record.import_equivs = i % 100 == 0 ? ":ios;:isys" : "";
    auto other = record;
    other.scan_name = ":attrs";
    ASSERT_TRUE(db->SaveDataForFile(locs.back(), {record, other}, "", i + 2));
  }
  db = Restarted(std::move(db));
  locs.push_back(File("unknown.py"));
  const auto classes = db->GetAllClasses(locs, ":names");
  EXPECT_EQ(classes.size(), 600U);
  EXPECT_EQ(std::count(classes.begin(), classes.end(), CClassEquiv{locs[7], ":cA7(x;y)"}), 1);
  EXPECT_THAT(
      db->GetAllImports(locs, ":names"),
      ElementsAre(CImportEquiv{locs[0], "", ":ios"}, CImportEquiv{locs[0], "", ":isys"},
                  CImportEquiv{locs[100], "", ":ios"}, CImportEquiv{locs[100], "", ":isys"},
                  CImportEquiv{locs[200], "", ":ios"}, CImportEquiv{locs[200], "", ":isys"}));
  EXPECT_THAT(db->GetAllImports({}, ":names"), IsEmpty());
  EXPECT_THAT(db->GetAllClasses(locs, ":unknown"), IsEmpty());
}

TEST_P(DbService, WhatIsHandedOutIsTheReceiversOwn) {
  auto db = Process();
  const Loc loc = File("a.py");
  const auto record = MakeRecord(loc, "f", ":names", "d", 2);
  ASSERT_TRUE(db->SaveDataForFile(loc, {record}, "", 2));
  const auto expected = Lines({record});
  record.scopes_seen->Set(CScopeRef{loc, "*"}, 99);
  db->ReadScopeDataRecords(loc, kBothScans, kAllScopes, 2)[0].scopes_seen->clear();
  EXPECT_EQ(AllOf(*db, loc, 2), expected);
}

TEST_P(DbService, OthersAreToldOfJustTheFilesThatChanged) {
  auto own = Process();
  auto other = Process();
  std::vector<Text> told;
  own->connect(kExternalDbContentsChanged, [&](CAnalysisDb&, const CLocSet* locs) {
    for (const Loc loc : *locs) {
      told.push_back(loc->fUrl);
    }
  });
  const Loc a = File("a.py");
  const Loc b = File("b.py");
  ASSERT_TRUE(own->SaveDataForFile(a, {MakeRecord(a, "", ":names", "d", 2)}, "", 2));
  own->CheckForExternalChanges();
  EXPECT_THAT(told, IsEmpty()) << "own writes are not told";

  auto seen_from = MakeRecord(b, "", ":names", "d", 2);
  seen_from.scanned_loc = a;
  ASSERT_TRUE(other->SaveDataForFile(b, {seen_from}, "", 2));
  ASSERT_TRUE(own->SaveDataForFile(a, {MakeRecord(a, "f", ":names", "d", 2)}, "", 2));
  own->CheckForExternalChanges();
  EXPECT_THAT(told, ElementsAre(b->fUrl)) << "a file that a row refers to has not changed";
  told.clear();
  own->CheckForExternalChanges();
  EXPECT_THAT(told, IsEmpty()) << "a change is told once";

  ASSERT_TRUE(other->ClearInfoForFiles({a, File("unknown.py")}));
  own->CheckForExternalChanges();
  EXPECT_THAT(told, ElementsAre(a->fUrl));
  told.clear();
  ASSERT_TRUE(own->ClearInfoForFiles({b}));
  own->CheckForExternalChanges();
  EXPECT_THAT(told, IsEmpty());
}

// ---- The random walk: two processes on SQLite beside two on the fake.

class DbRandomWalk : public CDbWorld {};

TEST_F(DbRandomWalk, SqliteAnswersAsTheModelDoes) {
  const uint64_t seed = fakes::TestSeed();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  const auto below = [&random](size_t n) { return static_cast<size_t>(random() % n); };

  const std::vector<Loc> locs{File("a.py"), File("pkg/b.py"), File("c.pyi"),
                              fLocCache.GetLocation("file:///elsewhere/d.py"),
                              fLocCache.GetBuiltinLoc()};
  const std::vector<Text> scopes{"",   "a", "a.f",        "a.f#2",
                                 "C:", "C", "D.<lambda>", "long " + Text(300, 'x')};
  const std::vector<std::optional<Text>> scans{std::nullopt, "", ":names", ":names", ":attrs"};
  const std::vector<DiskTime> times{2, 3.5};
  const auto loc = [&] { return locs[below(locs.size())]; };

  const auto store = std::make_shared<CMemoryDbStore>();
  struct Process {
    std::unique_ptr<CAnalysisDb> real;
    std::unique_ptr<CAnalysisDb> model;
    Text told_real;
    Text told_model;
  };
  const auto start = [&](Process& process) {
    process.real.reset();
    process.real = Open();
    process.model = std::make_unique<CMemoryAnalysisDb>(store);
    const auto note = [](Text& into) {
      return [&into](CAnalysisDb&, const CLocSet* changed) {
        std::vector<Text> urls;
        for (const Loc l : *changed) {
          urls.push_back(l->fUrl);
        }
        std::sort(urls.begin(), urls.end());
        into += Repr(urls);
      };
    };
    process.real->connect(kExternalDbContentsChanged, note(process.told_real));
    process.model->connect(kExternalDbContentsChanged, note(process.told_model));
  };
  Process processes[2];
  start(processes[0]);
  start(processes[1]);

  for (int step = 0; step < 3000 && !HasFailure(); ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    Process& process = processes[below(2)];
    const auto both = [&process](auto operation) {
      EXPECT_EQ(operation(*process.real), operation(*process.model));
    };
    const Loc file = loc();
    const DiskTime time = times[below(10) == 0 ? 1 : 0];
    switch (below(9)) {
      case 0:
      case 1: {
        std::vector<CDatabaseRecord> records;
        for (size_t i = below(6); i != 0; --i) {
          auto record = MakeRecord(file, scopes[below(scopes.size())], scans[below(scans.size())],
                                   Bytes(below(400), 'd') + std::to_string(step), time);
          if (below(4) == 0) {
            record.scanned_loc = loc();
          }
          if (below(4) == 0) {
            record.scanned_scope = scopes[below(scopes.size())];
          }
          if (below(3) == 0) {
            record.scopes_seen->Set(CScopeRef{loc(), scopes[below(scopes.size())]},
                                    times[below(times.size())]);
          }
          if (below(3) == 0) {
            record.class_equivs = ":cC" + std::to_string(step) + "(a;b);:cD()";
            record.import_equivs = ":im" + std::to_string(step);
          }
          records.push_back(record);
        }
        const Text done = std::to_string(below(3));
        both([&](CAnalysisDb& db) { return db.SaveDataForFile(file, records, done, time); });
        break;
      }
      case 2:
        if (below(4) == 0) {
          both([&](CAnalysisDb& db) { return db.ClearInfoForFiles({file, locs[0]}); });
        }
        break;
      case 3:
        both([&](CAnalysisDb& db) {
          auto names = db.ReadScopeNames(file, ":names", time);
          std::sort(names.begin(), names.end());
          return names;
        });
        break;
      case 4: {
        std::vector<Text> asked;
        for (size_t i = below(4); i != 0; --i) {
          asked.push_back(scopes[below(scopes.size())]);
        }
        both([&](CAnalysisDb& db) {
          return Lines(db.ReadScopeDataRecords(file, {":names", ""}, asked, time));
        });
        both([&](CAnalysisDb& db) { return AllOf(db, file, time); });
        break;
      }
      case 5:
        both([&](CAnalysisDb& db) {
          CLocMtimeDict asked;
          for (const Loc l : locs) {
            asked.Set(l, time);
          }
          return Repr(db.GetScansDone(asked));
        });
        break;
      case 6:
        both([&](CAnalysisDb& db) {
          std::vector<Text> imports;
          for (const auto& import : db.GetAllImports(locs, ":names")) {
            imports.push_back(
                FormatPercent("%r %r %s", {import.loc, import.scope_name, import.ibytes}));
          }
          std::sort(imports.begin(), imports.end());
          return imports;
        });
        both([&](CAnalysisDb& db) {
          auto classes = db.GetAllClasses(locs, ":names");
          std::sort(classes.begin(), classes.end());
          return classes;
        });
        break;
      case 7:
        process.real->CheckForExternalChanges();
        process.model->CheckForExternalChanges();
        EXPECT_EQ(process.told_real, process.told_model);
        break;
      case 8:
        if (below(20) == 0) {
          start(process);
        }
        break;
    }
  }
  EXPECT_THAT(Open()->Verify(), IsEmpty());
}

}  // namespace
}  // namespace pysource::standalone
