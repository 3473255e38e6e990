// What only the database on SQLite has: a file that can be moved, damaged, locked, full, replaced
// or not ours, and other processes.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <thread>
#include <unordered_map>

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/host/logger.h"
#include "pysource/standalone/sqlitedb/rowsum.h"
#include "pysource/standalone/sqlitedb/schema.h"
#include "tests/sqlitedb/dbworld.h"
#include "tests/sqlitedb/failingvfs.h"

namespace pysource::standalone {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace fs = std::filesystem;

std::string ContentOf(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void WriteTo(const fs::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

class SqliteDb : public CDbWorld {
 protected:
  bool Save(CAnalysisDb& db, const std::string& file, const Bytes& data, int records = 1) {
    std::vector<CDatabaseRecord> list;
    list.reserve(static_cast<size_t>(records));
    for (int i = 0; i < records; ++i) {
      list.push_back(MakeRecord(File(file), "f" + std::to_string(i), ":names", data, 2));
    }
    return db.SaveDataForFile(File(file), list, ":names", 2);
  }
  // The data of the file's first record; "-" when it has none.
  Bytes Held(CAnalysisDb& db, const std::string& file) {
    const auto records = db.ReadScopeDataRecords(File(file), kBothScans, {"f0"}, 2);
    return records.empty() ? "-" : records[0].data;
  }
  // What is told at the next check: "everything", or the URLs.
  std::string Told(CAnalysisDb& db) {
    std::set<std::string> told;
    const auto id =
        db.connect(kExternalDbContentsChanged, [&told](CAnalysisDb&, const CLocSet* locs) {
          if (locs == nullptr) {
            told.insert("everything");
            return;
          }
          for (const Loc loc : *locs) {
            told.insert(fs::path(loc->fUrl).filename());
          }
        });
    db.CheckForExternalChanges();
    db.disconnect(id);
    std::string result;
    for (const std::string& one : told) {
      result += (result.empty() ? "" : " ") + one;
    }
    return result;
  }
};

TEST_F(SqliteDb, AMovedWorkspaceKeepsItsDatabase) {
  auto db = Open();
  const Loc outside = fLocCache.GetLocation("file:///elsewhere/x.py");
  auto record = MakeRecord(File("pkg/a.py"), "f", ":attrs", "d", 2);
  record.scanned_loc = File("b.py");
  record.scopes_seen->Set(CScopeRef{outside, "*"}, 3);
  ASSERT_TRUE(db->SaveDataForFile(record.for_loc, {record}, ":names", 2));
  db.reset();

  const std::string moved = (fFolder / "moved").string();
  CSqliteAnalysisDb there({DbPath(), moved}, fLocCache);
  const auto at = [&](const char* name) { return fLocCache.GetLocationForPath(moved + name); };
  auto expected = record;
  expected.for_loc = at("/pkg/a.py");
  expected.scanned_loc = at("/b.py");
  expected.scopes_seen = std::make_shared<CScopesSeenDict>();
  expected.scopes_seen->Set(CScopeRef{at("/pkg/a.py"), "*"}, 2);
  expected.scopes_seen->Set(CScopeRef{outside, "*"}, 3);
  EXPECT_EQ(AllOf(there, at("/pkg/a.py"), 2), Lines({expected}));
  EXPECT_THAT(AllOf(there, File("pkg/a.py"), 2), IsEmpty()) << "the old place is another file";

  int rows = 0;
  CSqliteAnalysisDb({DbPath(), ""}, fLocCache).VisitAllRecords([&](const CStoredRow& row) {
    ++rows;
    EXPECT_EQ(row.file, "w:pkg/a.py");
    EXPECT_THAT(row.error, HasSubstr("workspace"));
  });
  EXPECT_EQ(rows, 1);
}

// ---- Failing saves. Whatever fails, nothing is half stored, and the next save goes through.

class SqliteDbFailingSave : public SqliteDb {
 protected:
  // Runs a save again and again, the n-th step failing, until one goes through to the end.
  // `arm(n)` makes it fail, `disarm` ends that and says whether it came to it.
  void FailEachStep(const std::function<void(int n)>& arm, const std::function<bool()>& disarm,
                    int least_steps) {
    const Loc loc = File("a.py");
    auto db = Open();
    ASSERT_TRUE(Save(*db, "a.py", "old", 3));
    const auto old_rows = AllOf(*db, loc, 2);
    // A new disk time, a new scan, new files in rows and scopes seen, a row over several pages.
    std::vector<CDatabaseRecord> records;
    for (int i = 0; i < 4; ++i) {
      records.push_back(MakeRecord(loc, "g" + std::to_string(i), ":attrs", Bytes(9000, 'd'), 3));
      records.back().scanned_loc = File("scanned" + std::to_string(i));
      records.back().scopes_seen->Set(CScopeRef{File("seen" + std::to_string(i)), "*"}, 4);
    }
    int n = 1;
    for (bool failed = true; failed; ++n) {
      ASSERT_LT(n, 20000);
      SCOPED_TRACE("step " + std::to_string(n));
      arm(n);
      const bool saved = db->SaveDataForFile(loc, records, "new", 3);
      failed = disarm();
      if (saved) {
        // What fails after the commit (tidying up) leaves the answer true, and it must be.
        ASSERT_EQ(AllOf(*db, loc, 3), Lines(records));
        ASSERT_EQ(AllOf(*Open(), loc, 3), Lines(records));
        if (!failed) {
          break;
        }
        ASSERT_TRUE(db->ClearInfoForFiles({loc}));
        ASSERT_TRUE(Save(*db, "a.py", "old", 3));
        continue;
      }
      ASSERT_TRUE(failed);
      ASSERT_THAT(db->LastError(), HasSubstr("scopes.db: saving: "));
      ASSERT_EQ(db->RefusalOf(loc), db->LastError());
      ASSERT_EQ(AllOf(*db, loc, 2), old_rows);
      ASSERT_THAT(AllOf(*db, loc, 3), IsEmpty());
      auto reopened = Open();
      ASSERT_EQ(AllOf(*reopened, loc, 2), old_rows);
      ASSERT_EQ(reopened->Message(), "");
    }
    EXPECT_GT(n, least_steps);
    EXPECT_EQ(db->LastError() + db->RefusalOf(loc), "");
    EXPECT_EQ(db->Message(), "");
    EXPECT_THAT(db->Verify(), IsEmpty());
  }
};

// The connection that was opened last, and the steps of SQLite's machine that are left to it.
sqlite3* gLastOpened = nullptr;
int gStepsLeft = 0;

TEST_F(SqliteDbFailingSave, EveryStatement) {
  int (*const note)(sqlite3*, const char**, const void*) = [](sqlite3* db, const char**,
                                                              const void*) {
    gLastOpened = gLastOpened == nullptr ? db : gLastOpened;
    return SQLITE_OK;
  };
  gLastOpened = nullptr;
  const auto entry = reinterpret_cast<void (*)()>(note);
  sqlite3_auto_extension(entry);
  FailEachStep(
      [](int n) {
        gStepsLeft = n;
        sqlite3_progress_handler(
            gLastOpened, 1,
            [](void*) {
              // Within the transaction: a commit that is interrupted when it is done is done.
              return sqlite3_get_autocommit(gLastOpened) == 0 && --gStepsLeft == 0 ? 1 : 0;
            },
            nullptr);
      },
      [] {
        sqlite3_progress_handler(gLastOpened, 0, nullptr, nullptr);
        return gStepsLeft <= 0;
      },
      30);
  sqlite3_cancel_auto_extension(entry);
}

TEST_F(SqliteDbFailingSave, EveryWriteToTheDisk) {
  struct Case {
    const char* reason;
    int code;
    bool all_later;
    const char* journal;
  };
  for (const Case& c : {Case{"an error, once", SQLITE_IOERR_WRITE, false, "wal"},
                        Case{"a full disk", SQLITE_FULL, true, "wal"},
                        Case{"an error, once, without WAL", SQLITE_IOERR_WRITE, false, "delete"},
                        Case{"a full disk without WAL", SQLITE_FULL, true, "delete"}}) {
    SCOPED_TRACE(c.reason);
    fs::remove(DbPath());
    Open();
    Sql(std::string("PRAGMA journal_mode = ") + c.journal);
    const CFailingVfs vfs;
    FailEachStep([&c](int n) { CFailingVfs::FailAt(n, c.code, c.all_later); },
                 [] {
                   const bool failed = CFailingVfs::HasFailed();
                   CFailingVfs::FailAt(0, SQLITE_OK, false);
                   return failed;
                 },
                 8);
  }
}

TEST_F(SqliteDb, ABatchSaysOfEachFileWhetherItIsStored) {
  const std::vector<std::string> names{"a.py", "b.py", "c.py"};
  for (const auto& [code, all_later] :
       {std::pair(SQLITE_IOERR_WRITE, false), {SQLITE_FULL, true}}) {
    SCOPED_TRACE(code);
    const CFailingVfs vfs;
    auto db = Open();
    bool failed = true;
    int undone = 0;
    for (int n = 1; failed; ++n) {
      ASSERT_LT(n, 20000);
      SCOPED_TRACE("write " + std::to_string(n));
      const Bytes data = std::to_string(code) + " " + std::to_string(n) + Bytes(9000, 'd');
      CFailingVfs::FailAt(n, code, all_later);
      std::vector<bool> answers;
      const bool together = db->Together([&] {
        for (const std::string& name : names) {
          answers.push_back(Save(*db, name, data));
        }
      });
      failed = CFailingVfs::HasFailed();
      CFailingVfs::FailAt(0, SQLITE_OK, false);
      const auto other = Open();
      for (size_t i = 0; i < names.size(); ++i) {
        const bool stored = Held(*other, names[i]) == data;
        EXPECT_EQ(Held(*db, names[i]) == data, stored) << names[i];
        EXPECT_EQ(db->RefusalOf(File(names[i])).empty(), stored) << names[i];
        if (together) {
          EXPECT_EQ(answers[i], stored) << names[i];
        }
        undone += answers[i] && !stored ? 1 : 0;
      }
      EXPECT_TRUE(failed || together);
    }
    EXPECT_GT(undone, 0) << "no batch has failed at its end";
    EXPECT_THAT(db->Verify(), IsEmpty());
  }
  // What the work throws undoes it, too.
  auto db = Open();
  EXPECT_THROW(db->Together([&] {
    EXPECT_TRUE(Save(*db, "a.py", "thrown"));
    throw CValueError("thrown");
  }),
               CValueError);
  EXPECT_THAT(db->RefusalOf(File("a.py")), HasSubstr("scopes.db: saving: "));
  EXPECT_NE(Held(*db, "a.py"), "thrown");
}

TEST_F(SqliteDb, ALockIsWaitedForShortlyAndTheSaveGoesThroughLater) {
  for (const char* journal : {"wal", "delete"}) {
    SCOPED_TRACE(journal);
    Open();
    Sql(std::string("PRAGMA journal_mode = ") + journal);
    auto db = Open();
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(DbPath().c_str(), &other), SQLITE_OK);
    for (const char* lock : {"BEGIN IMMEDIATE", "BEGIN; SELECT * FROM files"}) {
      sqlite3_exec(other, lock, nullptr, nullptr, nullptr);
      const auto began = std::chrono::steady_clock::now();
      const bool saved = Save(*db, "a.py", "d");
      const auto took = std::chrono::steady_clock::now() - began;
      if (!saved) {
        EXPECT_GE(took, std::chrono::milliseconds(50)) << "it has not waited";
        EXPECT_THAT(db->LastError(), HasSubstr("locked"));
      }
      EXPECT_EQ(saved, lock[5] == ';' && *journal == 'w') << lock << ": readers do not keep WAL";
      sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
      EXPECT_TRUE(Save(*db, "a.py", lock)) << db->LastError();
      EXPECT_EQ(Held(*db, "a.py"), lock);
    }
    sqlite3_close(other);
  }
}

TEST_F(SqliteDb, WithoutWalItWorksAllTheSame) {
  const CFailingVfs vfs(false);
  auto db = Open();
  ASSERT_TRUE(Save(*db, "a.py", "d")) << db->LastError();
  db.reset();
  EXPECT_EQ(Held(*Open(), "a.py"), "d");
  EXPECT_EQ(ContentOf(DbPath()).substr(18, 2), "\x01\x01") << "the header says: a rollback journal";
}

TEST_F(SqliteDb, TwoProcessesWriteAndReadAtTheSameTime) {
  constexpr int kFiles = 150;
  Open();
  const auto work = [&](const std::string& prefix) {
    auto db = Open();
    int refused = 0;
    for (int i = 0; i < kFiles; ++i) {
      const std::string file = prefix + std::to_string(i);
      while (!Save(*db, file, "d" + file, 5)) {
        ASSERT_LT(++refused, 1000) << db->LastError();
      }
      ASSERT_EQ(Held(*db, file), "d" + file);
    }
  };
  std::thread other([&] { work("b"); });
  work("a");
  other.join();
  auto db = Open();
  for (int i = 0; i < kFiles; ++i) {
    EXPECT_EQ(Held(*db, "a" + std::to_string(i)), "da" + std::to_string(i));
    EXPECT_EQ(Held(*db, "b" + std::to_string(i)), "db" + std::to_string(i));
  }
  EXPECT_THAT(db->Verify(), IsEmpty());
}

// What b.py says of a.py goes when a.py is cleared. Whoever scans b.py again without having heard
// of that takes the row for stored.
TEST_F(SqliteDb, WhatASourceLostIsForgottenByWhoHasHeardOfTheLossAlone) {
  auto db = Open();
  auto other = Open();
  const Loc a = File("a.py");
  const Loc b = File("b.py");
  const auto save_b = [&](CAnalysisDb& by, TextView scans_done) {
    return by.SaveDataForFile(b, {MakeRecord(b, "", ":names", "d", 2)}, scans_done, 2);
  };
  CDatabaseRecord said = MakeRecord(a, "", ":attrs", "said", 2);
  said.scanned_loc = b;
  const auto save_a = [&](CAnalysisDb& by) {
    return by.SaveDataForFile(a, {MakeRecord(a, "", ":names", "d", 2), said}, ":names", 2);
  };
  ASSERT_TRUE(save_a(*db) && save_b(*db, ":names"));
  EXPECT_THAT(db->LostSources(), IsEmpty());

  for (const char* const was_claimed : {":names", ""}) {
    SCOPED_TRACE(was_claimed);
    ASSERT_TRUE(save_b(*db, was_claimed));
    (void)db->CheckForExternalChanges();
    ASSERT_TRUE(other->ClearInfoForFiles({a}));
    EXPECT_THAT(db->LostSources(), ElementsAre(b));
    ASSERT_TRUE(save_b(*db, "") && save_b(*db, ":names"));
    EXPECT_THAT(db->LostSources(), ElementsAre(b));
    EXPECT_EQ(Told(*db), "a.py");
    ASSERT_TRUE(save_b(*db, "") && save_b(*db, ":names"));
    EXPECT_THAT(db->LostSources(), IsEmpty());
    ASSERT_TRUE(save_a(*db));
  }
  // Its own clears a process knows of.
  ASSERT_TRUE(db->ClearInfoForFiles({a}));
  EXPECT_THAT(db->LostSources(), ElementsAre(b));
  ASSERT_TRUE(save_a(*db));
  EXPECT_THAT(db->LostSources(), IsEmpty());
  ASSERT_TRUE(db->ClearInfoForFiles({a, b}));
  EXPECT_THAT(db->LostSources(), IsEmpty());
}

TEST_F(SqliteDb, WhoeverComesWhileItIsMadeWaitsForIt) {
  constexpr int kRounds = 40;
  for (int round = 0; round < kRounds; ++round) {
    const auto open = [this] {
      try {
        EXPECT_EQ(Open()->Message(), "");
      } catch (const CError& error) {
        ADD_FAILURE() << error.what();
      }
    };
    std::thread second(open);
    std::thread third(open);
    open();
    second.join();
    third.join();
    for (const char* const companion : {"", "-wal", "-shm", "-journal"}) {
      fs::remove(DbPath() + companion);
    }
  }
}

// ---- Whatever lies in the database's place.

TEST_F(SqliteDb, WhatCannotBeUsedIsSetAsideAndNeverLost) {
  ASSERT_TRUE(Save(*Open(), "a.py", Bytes(20000, 'd'), 10));
  const std::string good = ContentOf(DbPath());
  const auto changed_by = [&](const char* sql) {
    WriteTo(DbPath(), good);
    Sql(sql);
    return ContentOf(DbPath());
  };
  struct Case {
    const char* reason;
    std::string content;
    const char* said;
  };
  int aside = 0;
  for (const Case& c :
       {Case{"text", "not a database, but longer than a header\n" + std::string(2000, 'x'),
             "not a database"},
        Case{"a torn header", std::string(100, '\0') + good.substr(100), "not a database"},
        Case{"a truncated file", good.substr(0, 8192), "malformed"},
        Case{"torn first pages", good.substr(0, 200) + std::string(20000, '\xAA'), "malformed"},
        Case{"a newer version", changed_by("PRAGMA user_version = 99"), "schema version is 99"},
        Case{"a missing table", changed_by("DROP TABLE changes"), "not those of this program"},
        Case{"a view", changed_by("CREATE VIEW v AS SELECT * FROM files"),
             "not those of this program"},
        Case{"a damaged header", changed_by("PRAGMA application_id = 7"), "header"}}) {
    SCOPED_TRACE(c.reason);
    WriteTo(DbPath(), c.content);
    auto db = Open();
    const std::string kept = DbPath() + ".set-aside-" + std::to_string(++aside);
    EXPECT_THAT(db->Message(),
                testing::AllOf(HasSubstr(DbPath()), HasSubstr(c.said), HasSubstr(kept)));
    EXPECT_EQ(ContentOf(kept), c.content);
    EXPECT_TRUE(Save(*db, "a.py", "new"));
    EXPECT_EQ(Held(*db, "a.py"), "new");
    db.reset();
    EXPECT_EQ(Open()->Message(), "") << "once is enough";
  }
}

TEST_F(SqliteDb, WhatIsNotOursIsLeftAlone) {
  struct Case {
    const char* reason;
    std::function<void(const std::string& path)> put;
    const char* said;
  };
  for (const Case& c :
       {Case{"a folder", [](const std::string& path) { fs::create_directory(path); }, "a folder"},
        Case{"a pipe", [](const std::string& path) { mkfifo(path.c_str(), 0600); },
             "not a regular file"},
        Case{"a database of another program",
             [this](const std::string&) { Sql("CREATE TABLE places(url TEXT)"); },
             "another program"},
        Case{"no folder can be made",
             [this](const std::string& path) {
               fs::remove_all(fFolder);
               WriteTo(fFolder, "a file where the folder should be");
               (void)path;
             },
             "folder"}}) {
    SCOPED_TRACE(c.reason);
    c.put(DbPath());
    const auto before = fs::status(DbPath()).type();
    try {
      Open();
      ADD_FAILURE() << "opened";
    } catch (const CValueError& error) {
      EXPECT_THAT(error.what(), testing::AllOf(HasSubstr(DbPath()), HasSubstr(c.said)));
    }
    EXPECT_EQ(fs::status(DbPath()).type(), before);
    EXPECT_FALSE(fs::exists(DbPath() + ".set-aside-1"));
    std::error_code ignored;
    fs::remove_all(DbPath(), ignored);
  }
}

// Takes away the rights of root, which can write everywhere.
class CWithoutRights {
 public:
  CWithoutRights() { EXPECT_TRUE(geteuid() != 0 || seteuid(65534) == 0); }
  ~CWithoutRights() { EXPECT_TRUE(getuid() != 0 || seteuid(0) == 0); }
};

TEST_F(SqliteDb, AReadOnlyPlaceIsReadOrRefusedWithItsName) {
  ASSERT_TRUE(Save(*Open(), "a.py", "d"));
  fs::permissions(fFolder, fs::perms(0555));
  for (const fs::perms file_rights : {fs::perms(0444), fs::perms(0666)}) {
    fs::permissions(DbPath(), file_rights);
    const CWithoutRights without;
    auto db = Open();
    EXPECT_EQ(Held(*db, "a.py"), "d");
    EXPECT_FALSE(Save(*db, "a.py", "new"));
    EXPECT_FALSE(db->ClearInfoForFiles({File("a.py")}));
    EXPECT_THAT(db->LastError(), HasSubstr("scopes.db: clearing: "));
    EXPECT_EQ(db->RefusalOf(File("a.py")), db->LastError());
    EXPECT_EQ(Held(*db, "a.py"), "d");
    EXPECT_EQ(Told(*db), "");
  }
  fs::permissions(fFolder, fs::perms(0755));
  fs::remove(DbPath());
  fs::permissions(fFolder, fs::perms(0555));
  {
    const CWithoutRights without;
    try {
      Open();
      ADD_FAILURE() << "opened";
    } catch (const CValueError& error) {
      EXPECT_THAT(error.what(), HasSubstr(DbPath()));
    }
  }
  fs::permissions(fFolder, fs::perms(0755));
}

// ---- Damage that is met later.

// Whatever was done to the rows: what is read is as it was saved or not there, all of it is looked
// at once, and then what is not there can be saved again.
TEST_F(SqliteDb, DamagedRowsAreNeverReadAndHeal) {
  const auto rows_of = [this](CSqliteAnalysisDb& db) {
    std::vector<Text> rows;
    for (const char* name : {"a.py", "b.py", "c.py"}) {
      const auto names = db.ReadScopeNames(File(name), ":names", 2);
      const auto records = Lines(db.ReadScopeDataRecords(File(name), kBothScans, kAllScopes, 2));
      EXPECT_LE(records.size(), names.size()) << "what is met later is dropped then";
      rows.insert(rows.end(), records.begin(), records.end());
    }
    return rows;
  };
  const auto save = [this](CSqliteAnalysisDb& db) {
    for (const char* name : {"a.py", "b.py", "c.py"}) {
      EXPECT_TRUE(Save(db, name, name, 6)) << db.LastError();
    }
    auto record = MakeRecord(File("b.py"), "f9", ":names", "of c", 2);
    record.scanned_loc = File("c.py");
    EXPECT_TRUE(db.SaveDataForFile(File("b.py"), {record}, ":names", 2));
  };
  for (const char* sql : {"UPDATE records SET seen = x'FF80FF' WHERE scope = 'f1'",
                          "UPDATE records SET scanned_file = 12345 WHERE scope = 'f3'",
                          "UPDATE records SET scan = 77 WHERE scope = 'f4'",
                          "UPDATE records SET data = x'00' WHERE scope = 'f2'",
                          "UPDATE records SET scope = 'f7' WHERE scope = 'f2'",
                          "UPDATE records SET sum = sum + 1",
                          "UPDATE records SET id = id + 1 WHERE scope = 'f5'",
                          "DELETE FROM records WHERE scope = 'f0'",
                          "DELETE FROM records WHERE scope = 'f9'",
                          "DELETE FROM records",
                          "UPDATE files SET disk_time = 7 WHERE name = 'w:b.py'",
                          "UPDATE files SET place = place + 274877906944 WHERE name = 'w:c.py'",
                          "UPDATE files SET scans_done = ':names:attrs'",
                          "UPDATE files SET name = name || 'x'",
                          "DELETE FROM files WHERE name = 'w:b.py'",
                          "DELETE FROM files",
                          "UPDATE scans SET name = ':other'",
                          "DELETE FROM scans",
                          "INSERT INTO lost VALUES(1, 2, 3, 4)",
                          "UPDATE changes SET tally = 0",
                          "DELETE FROM changes"}) {
    SCOPED_TRACE(sql);
    auto db = Open();
    save(*db);
    const auto saved = rows_of(*db);
    db.reset();
    Sql(sql);
    SetLineSink([](TextView) {});
    db = Open();
    for (const Text& row : rows_of(*db)) {
      EXPECT_THAT(saved, testing::Contains(row));
    }
    db->EnsureSound();
    EXPECT_THAT(db->Verify(), testing::IsEmpty());
    EXPECT_NE(db->Message(), "");
    SetLineSink(nullptr);
    save(*db);
    EXPECT_EQ(rows_of(*db), saved);
  }
}

TEST_F(SqliteDb, DamagedPagesMetInAReadOrASaveBeginANewDatabase) {
  for (const bool save_first : {false, true}) {
    SCOPED_TRACE(save_first);
    {
      auto db = Open();
      for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(Save(*db, "f" + std::to_string(i), Bytes(1000, 'd'), 8));
      }
    }
    // The first pages, the roots of the tables, stay whole, so that it opens.
    const std::string good = ContentOf(DbPath());
    std::string torn = good.substr(0, 9 * 4096);
    torn.resize(good.size(), '\x55');
    WriteTo(DbPath(), torn);

    auto db = Open();
    ASSERT_EQ(db->Message(), "");
    EXPECT_THAT(db->Verify(), Each(HasSubstr(DbPath()))) << "looking repairs nothing";
    ASSERT_FALSE(db->Verify().empty());
    CaptureStderr();
    if (save_first) {
      EXPECT_TRUE(Save(*db, "f19", "new", 3)) << db->LastError();
    } else {
      EXPECT_EQ(Held(*db, "f19"), "-");
    }
    EXPECT_THAT(GetCapturedStderr(), HasSubstr("set aside"));
    EXPECT_THAT(db->Message(), HasSubstr(DbPath() + ".set-aside-"));
    EXPECT_TRUE(Save(*db, "f19", "new")) << db->LastError();
    EXPECT_EQ(Held(*db, "f19"), "new");
    EXPECT_EQ(Told(*db), "everything");
    EXPECT_EQ(Told(*db), "");
  }
}

// ---- Changes by others.

TEST_F(SqliteDb, AReplacedOrRemovedDatabaseIsOpenedAnewAndEverythingTold) {
  auto db = Open();
  ASSERT_TRUE(Save(*db, "a.py", "old"));
  const auto remove = [this] {
    for (const char* companion : {"", "-wal", "-shm"}) {
      fs::remove(DbPath() + companion);
    }
  };
  remove();
  EXPECT_EQ(Told(*db), "everything");
  EXPECT_EQ(Held(*db, "a.py"), "-");
  EXPECT_EQ(Told(*db), "");

  ASSERT_TRUE(Save(*db, "a.py", "new"));
  remove();
  EXPECT_TRUE(Save(*db, "b.py", "into the file that all see")) << db->LastError();
  EXPECT_EQ(Held(*Open(), "b.py"), "into the file that all see");
  EXPECT_EQ(Told(*db), "everything");
}

TEST_F(SqliteDb, WhoLooksTooLateIsToldOfEverything) {
  auto late = Open();
  auto other = Open();
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(Save(*other, "f" + std::to_string(i), "d"));
  }
  // As when the log was cut.
  Sql("DELETE FROM changes WHERE seq < 3");
  EXPECT_EQ(Told(*late), "everything");
  ASSERT_TRUE(Save(*other, "f1", "new"));
  EXPECT_EQ(Told(*late), "f1");

  ASSERT_TRUE(Save(*other, "f2", "new"));
  const int64_t seq = sqlitedb::kChangesCutEvery * 20 - 1;
  const int64_t sum = sqlitedb::CRowSum().Int(seq).Int(1).Int(0).Sum();
  Sql("INSERT INTO changes VALUES(" + std::to_string(seq) + ", 1, 0, " + std::to_string(sum) + ")");
  ASSERT_TRUE(Save(*other, "f3", "new"));
  sqlite3* raw = nullptr;
  ASSERT_EQ(sqlite3_open(DbPath().c_str(), &raw), SQLITE_OK);
  int rows = 0;
  sqlite3_exec(
      raw, "SELECT * FROM changes",
      [](void* count, int, char**, char**) {
        ++*static_cast<int*>(count);
        return 0;
      },
      &rows, nullptr);
  sqlite3_close(raw);
  EXPECT_EQ(rows, 2) << "the log is cut";
}

TEST_F(SqliteDb, ADestroyedDatabaseAnswersNothing) {
  auto db = Open();
  ASSERT_TRUE(Save(*db, "a.py", "d"));
  db->destroy();
  EXPECT_EQ(Held(*db, "a.py"), "-");
  EXPECT_FALSE(Save(*db, "a.py", "d"));
  EXPECT_THAT(db->LastError(), HasSubstr("closed"));
  EXPECT_EQ(Told(*Open()), "");
}

TEST_F(SqliteDb, ARecordThatBreaksARuleIsRefusedWithAllOthers) {
  auto db = Open();
  ASSERT_TRUE(Save(*db, "a.py", "old"));
  const auto good = MakeRecord(File("a.py"), "f0", ":names", "new", 2);
  auto of_another_file = good;
  of_another_file.for_loc = File("b.py");
  auto seen_nowhere = MakeRecord(File("a.py"), "f1", ":names", "new", 2);
  seen_nowhere.scopes_seen->Set(CScopeRef{Loc(), "*"}, 2);
  for (const auto& wrong : {of_another_file, seen_nowhere}) {
    EXPECT_THROW(db->SaveDataForFile(File("a.py"), {good, wrong}, "", 2), CAssertionError);
    EXPECT_EQ(Held(*db, "a.py"), "old");
  }
  auto next = good;
  next.scopes_seen->Set(CScopeRef{File("c.py"), "*"}, 3);
  EXPECT_TRUE(db->SaveDataForFile(File("a.py"), {next}, "", 2));
  EXPECT_EQ(AllOf(*db, File("a.py"), 2), Lines({next})) << "nothing of the refused one is left";
}

// ---- Where rows lie.

TEST_F(SqliteDb, FilesOfOneHashAreKeptApart) {
  // Of 200,000 names some share the 31 bits of their ids.
  std::unordered_map<int64_t, std::string> names;
  std::vector<std::string> pair;
  for (int i = 0; pair.empty() && i < 1000000; ++i) {
    const std::string name = "f" + std::to_string(i);
    const auto [known, added] = names.emplace(sqlitedb::FirstFileId("w:" + name), name);
    if (!added) {
      pair = {known->second, name};
    }
  }
  ASSERT_EQ(pair.size(), 2U);
  ASSERT_TRUE(Save(*Open(), pair[0], "first"));
  EXPECT_EQ(Held(*Open(), pair[1]), "-");
  ASSERT_TRUE(Save(*Open(), pair[1], "second"));
  auto db = Open();
  CLocMtimeDict times;
  times.Set(File(pair[1]), 2);
  times.Set(File(pair[0]), 2);
  EXPECT_EQ(db->GetScansDone(times).size(), 2U);
  EXPECT_EQ(Held(*db, pair[0]), "first");
  EXPECT_EQ(Held(*db, pair[1]), "second");
}

TEST_F(SqliteDb, APlaceThatWasEmptiedBelongsToOneFileAgain) {
  auto db = Open();
  ASSERT_TRUE(Save(*db, "a.py", "a"));
  ASSERT_TRUE(db->SaveDataForFile(File("a.py"), {}, "", 3));
  ASSERT_TRUE(Save(*db, "b.py", "b"));
  ASSERT_TRUE(Save(*db, "a.py", "a"));
  EXPECT_EQ(Held(*db, "b.py"), "b");
  EXPECT_THAT(db->Verify(), IsEmpty());
}

}  // namespace
}  // namespace pysource::standalone
