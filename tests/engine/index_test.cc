// The indexer and its check, over real files in a folder of the test's own.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "pysource/host/manualloop.h"
#include "pysource/standalone/engine/engine.h"
#include "pysource/standalone/engine/filerows.h"
#include "pysource/standalone/engine/findfiles.h"
#include "pysource/standalone/engine/indexcheck.h"
#include "pysource/standalone/engine/indexer.h"
#include "pysource/standalone/engine/mergecheck.h"
#include "pysource/standalone/engine/rowcheck.h"
#include "pysource/standalone/files/contenttime.h"
#include "tests/engine/randomtree.h"

namespace pysource::standalone {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

class IndexTest : public ::testing::Test {
 protected:
  IndexTest() {
    std::string pattern = fs::temp_directory_path() / "scopeinfo_index_XXXXXX";
    _fFolder = mkdtemp(pattern.data());
    fs::create_directory(Path("tree"));
    velk::SetMainLoop(&_fLoop);
  }
  ~IndexTest() override {
    velk::SetMainLoop(nullptr);
    fs::remove_all(_fFolder);
  }

  // Each run, and each look, is a process of its own.
  std::unique_ptr<CEngine> Start() {
    return std::make_unique<CEngine>(CEngineOptions{.db_path = Path("index.db"),
                                                    .workspace_root = "",
                                                    .import_roots = {Path("tree")},
                                                    .threads = 2,
                                                    .lock_wait_ms = 1,
                                                    .scanner_version = _fScanner});
  }

  std::string Path(const std::string& name) const { return _fFolder + "/" + name; }
  // Each write has a time of its own, whatever the clock of the file system.
  void Write(const std::string& name, const std::string& source) {
    std::ofstream(Path("tree/" + name)) << source;
    const timespec times[2] = {{++_fNow, 0}, {_fNow, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, Path("tree/" + name).c_str(), times, 0), 0);
  }
  void Remove(const std::string& name) { fs::remove(Path("tree/" + name)); }

  CFoundFiles Find(CEngine& engine) { return FindPythonFiles({Path("tree")}, engine.Locations()); }
  CIndexReport Index(const std::function<bool()>& between = nullptr,
                     const std::function<void()>& after_find = nullptr) {
    const auto engine = Start();
    const CFoundFiles found = Find(*engine);
    if (after_find) {
      after_find();
    }
    CIndexReport report = CIndexer(*engine).Run({found, nullptr, [&] {
                                                   _fLoop.RunIdle();
                                                   return between == nullptr || between();
                                                 }});
    engine->Cache().CheckInvariants();
    return report;
  }
  static CCheckReport Check(CEngine& engine, const CFoundFiles& found) {
    return CheckIndex(engine.Database(), engine.Locations(), {found, 2, nullptr, nullptr});
  }
  // Nothing is missing, wrong or left over.
  void ExpectExact() {
    const auto engine = Start();
    const CFoundFiles found = Find(*engine);
    const CCheckReport report = Check(*engine, found);
    EXPECT_EQ(report.files, found.files.size());
    EXPECT_EQ(report.equal, report.records);
    EXPECT_EQ(report.from_elsewhere, 0U);
    const CMergeCheckReport merged = CheckMerged(*engine, {found, 2, nullptr, nullptr});
    EXPECT_EQ(merged.equal, merged.scopes);
    const CRowCheckReport rows = CheckRows(engine->Database());
    EXPECT_EQ(rows.records, report.records);
    for (const auto* const notes :
         {&report.differences, &merged.differences, &rows.damaged, &rows.stale}) {
      for (const CPathNote& note : *notes) {
        ADD_FAILURE() << note.path << ": " << note.text;
      }
    }
    engine->Cache().CheckInvariants();
  }

  std::string _fFolder;
  time_t _fNow = 1700000000;
  int _fScanner = 1;  // its version
  velk::CManualLoop _fLoop;
};

// Whatever comes, changes and goes, and wherever runs are cut short: after each whole run the
// database is what a fresh scan of everything makes, the files seen included, and the next run finds
// nothing to do, though every file has another date by then.
TEST_F(IndexTest, RandomChangesLeaveTheDatabaseAsAFreshScanMakesIt) {
  fakes::CRandom random;
  CRandomTree tree(Path("tree"), random);
  size_t rows_for_others = 0;
  for (int step = 0; step < 80; ++step) {
    SCOPED_TRACE(step);
    for (size_t i = random.Below(3); i > 0; --i) {
      tree.Step();
    }
    if (random.OneIn(4)) {
      std::atomic<int> left(static_cast<int>(random.Below(4)));
      Index([&left] { return left-- > 0; });
      tree.Step();
    }
    const bool is_new_scanner = random.OneIn(8);
    _fScanner += is_new_scanner ? 1 : 0;
    const size_t files = Find(*Start()).files.size();
    const CIndexReport report = Index();
    ASSERT_THAT(report.not_stored, IsEmpty());
    ASSERT_TRUE(!is_new_scanner || report.scanned == files);
    ASSERT_EQ(report.scanned + report.unchanged, files);
    ExpectExact();
    ASSERT_FALSE(HasFailure());
    Start()->Database().VisitFilesAndTies(
        [](const CStoredFile&) {}, [](Loc, const CContentMark&) {},
        [&](const CTie& tie) { rows_for_others += tie.for_loc == tie.scanned_loc ? 0 : 1; });
    tree.TouchAll();
    const CIndexReport again = Index();
    ASSERT_EQ(again.scanned, 0U);
    ASSERT_EQ(again.unchanged, files);
  }
  EXPECT_GT(rows_for_others, 0U) << "the walk has to meet what it is about";
}

TEST_F(IndexTest, TheCheckFindsEachKindOfDifference) {
  Write("a.py", "import b\nb.x = 1\nclass C(b.B):\n  pass\n");
  Write("b.py", "class B:\n  pass\n");
  ASSERT_THAT(Index().not_stored, IsEmpty());
  ExpectExact();

  const auto engine = Start();
  CSqliteAnalysisDb& db = engine->Database();
  const CFoundFiles found = Find(*engine);
  const Loc a = engine->Locations().GetLocationForPath(Path("tree/a.py"));
  const Loc b = engine->Locations().GetLocationForPath(Path("tree/b.py"));
  const auto time_of = [this](const char* name) {
    return GetFileDiskTime(Path(std::string("tree/") + name));
  };
  const auto rows_of = [&](Loc loc, const char* name) {
    return db.ReadScopeDataRecords(loc, {Text(kNamesScan), Text(kAttrsScan)}, {"*"}, time_of(name));
  };
  struct {
    const char* what;
    const char* expected;
    std::function<void(std::vector<CDatabaseRecord>& of_a, std::vector<CDatabaseRecord>& of_b)>
        damage;
  } const kCases[] = {
      {"a row is lost", "is not stored", [](auto& of_a, auto&) { of_a.pop_back(); }},
      {"another file's row is lost", "is not stored",
       [&](auto&, auto& of_b) {
         std::erase_if(of_b, [&](const CDatabaseRecord& row) { return row.scanned_loc == a; });
       }},
      {"a row is there that no scan makes", "no scan finds it",
       [](auto& of_a, auto&) { of_a.front().for_scope = of_a.front().scanned_scope.emplace("D"); }},
      {"the bytes are those of another record", "differs in its bytes",
       [](auto& of_a, auto& of_b) { of_a.front().data = of_b.front().data; }},
      {"the bytes are no record", "cannot be decoded",
       [](auto& of_a, auto&) { of_a.front().data = "\x01\x02\x03"; }},
      {"the classes differ", "classes or imports",
       [](auto& of_a, auto&) { of_a.front().class_equivs += ";:cX()"; }},
      {"the files seen differ", "files seen",
       [](auto& of_a, auto&) { of_a.front().scopes_seen = nullptr; }},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.what);
    std::vector<CDatabaseRecord> of_a = rows_of(a, "a.py");
    std::vector<CDatabaseRecord> of_b = rows_of(b, "b.py");
    const auto good_a = of_a;
    const auto good_b = of_b;
    const auto store = [&](const auto& rows_of_a, const auto& rows_of_b) {
      ASSERT_TRUE(db.ClearInfoForFiles({a, b}));
      ASSERT_TRUE(db.SaveDataForFile(a, rows_of_a, AllScansDone(), time_of("a.py")));
      ASSERT_TRUE(db.SaveDataForFile(b, rows_of_b, AllScansDone(), time_of("b.py")));
    };
    test.damage(of_a, of_b);
    store(of_a, of_b);
    const CCheckReport report = Check(*engine, found);
    EXPECT_THAT(report.differences,
                ::testing::Contains(::testing::Field(&CPathNote::text, HasSubstr(test.expected))));
    // What cannot be decoded shows without a scan to compare with, too.
    const auto rows = CheckRows(db).damaged;
    EXPECT_EQ(test.expected == std::string("cannot be decoded"),
              std::any_of(rows.begin(), rows.end(), [](const CPathNote& note) {
                return note.text.find("cannot be decoded") != std::string::npos;
              }));
    store(good_a, good_b);
    ExpectExact();
  }
}

TEST_F(IndexTest, RowsThatRestOnAChangedFileOrClaimTooMuchAreNamed) {
  Write("a.py", "from b import *\n");
  Write("b.py", "x = 1\n");
  Write("c.py", "");
  ASSERT_THAT(Index().not_stored, IsEmpty());
  Write("b.py", "y = 1\n");
  Remove("c.py");
  const auto engine = Start();
  CRowCheckReport report = CheckRows(engine->Database());
  EXPECT_THAT(report.damaged, IsEmpty());
  EXPECT_THAT(report.stale, SizeIs(3));  // b.py, c.py, and what a.py has seen of b.py

  const Loc c = engine->Locations().GetLocationForPath(Path("tree/c.py"));
  ASSERT_TRUE(engine->Database().SaveDataForFile(c, {}, AllScansDone(), 5));
  report = CheckRows(engine->Database());
  ASSERT_THAT(report.damaged, SizeIs(1));
  EXPECT_THAT(report.damaged[0].text, HasSubstr("without a record of its module"));
}

TEST_F(IndexTest, AFileThatVanishesOnTheWayIsNamedAndTheOthersAreStored) {
  for (int i = 0; i < 20; ++i) {
    Write("m" + std::to_string(i) + ".py", "x = 1\n");
  }
  const CIndexReport report = Index(nullptr, [this] { Remove("m7.py"); });
  EXPECT_EQ(report.scanned, 19U);
  ASSERT_THAT(report.unreadable, SizeIs(1));
  EXPECT_EQ(report.unreadable[0].path, Path("tree/m7.py"));
  ExpectExact();
}

TEST_F(IndexTest, ARunGivesUpOnADatabaseThatRefusesAndTheNextOneMakesUpForIt) {
  for (int i = 0; i < 20; ++i) {
    Write("m" + std::to_string(i) + ".py", "x = 1\n");
  }
  Start();  // makes the database
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(Path("index.db").c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  const CIndexReport refused = Index();
  EXPECT_EQ(refused.scanned, 0U);
  EXPECT_FALSE(refused.cancelled);
  ASSERT_THAT(refused.not_stored, SizeIs(3));
  EXPECT_THAT(refused.not_stored[0].text, HasSubstr("index.db"));
  sqlite3_close(other);

  EXPECT_EQ(Index().scanned, 20U);
  ExpectExact();
}

}  // namespace
}  // namespace pysource::standalone
