// The info cache and its real host together: random steps over a small tree of Python files, and
// now and then everything that the engine says held against fresh scans of what is there.
//
// The steps are what happens to an engine in an editor: files and stubs come, change and go, are
// restored with their old times, are edited in buffers; scans are answered late or not at all; the
// disk is full; others write to the database; the process ends, or is killed. Jobs run on the
// thread of the test, so a seed gives the same walk each time.
#include <sqlite3.h>
#include <time.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "pysource/host/repr.h"
#include "pysource/standalone/files/contenttime.h"
#include "pysource/standalone/scanner/sourcefile.h"
#include "tests/engine/enginefixture.h"
#include "tests/engine/pythontree.h"
#include "tests/fakes/cachehost.h"
#include "tests/sqlitedb/failingvfs.h"

namespace pysource::standalone {
namespace {

namespace fs = std::filesystem;
using scopeinfo::CInfoCacheLimits;
using scopeinfo::CNeedsScanDict;
using scopeinfo::CScopeInfoPtr;

// Packages stay packages. With them the meaning of imports would change, and a record that an
// unchanged file made for another one under the old meaning is believed for as long as both files
// stay as they are.
bool IsPackage(const std::string& name) { return name.ends_with("__init__.py"); }

// No run of scans goes on for longer.
constexpr int kMostPieces = 2000;

class CWalk {
 public:
  explicit CWalk(uint64_t seed);

  void Step();
  // All that is under way comes to its end, and all is compared, here and in a next process.
  void Settle();

  Text Story();

 private:
  struct Content {
    Text text;
    time_t second;
  };
  struct File {
    bool exists = false;
    std::vector<Content> history;  // what was put on disk, the present one not always last
  };

  void Do(const Text& what) { fSteps.push_back(what); }
  void Require(bool holds, const Text& why) const {
    if (!holds) {
      throw std::runtime_error(why);
    }
  }

  // ---- Choices.
  std::string AnyName() { return fRandom.OneIn(6) ? fRandom.Of(kStubs) : fRandom.Of(kModules); }
  std::string AnyOf(bool existing);
  // A stub without its file would be what imports resolve to: there are none.
  bool CanBe(const std::string& name) {
    return name.ends_with("py") || fFiles[name.substr(0, name.size() - 1)].exists;
  }
  std::vector<Loc> SomeLocs();
  Text AnyScope(const std::string& name);

  // ---- Steps.
  void Put(const std::string& name, bool by_rename);
  void Delete(const std::string& name);
  void Restore(const std::string& name);
  void UseBuffer(const std::string& name);
  void SaveBuffer(const std::string& name);
  void Read(const std::string& name);
  void ReadMany();
  void AskAndCompare(const std::string& name, const Text& scope);
  void RunScans();
  void OtherProcess();
  void FailSaves();
  void LockedWrite();
  void Restart(bool kill);

  // The host looks at the files, and tells what it has to tell.
  void Notice();
  // Runs scans to their end, or gives up after so many pieces of work.
  bool Run(int most = kMostPieces);
  CEngine& Engine() { return *fWorld.fEngine; }
  scopeinfo::CInfoCache& Cache() { return Engine().Cache(); }
  Loc At(const std::string& name) { return fWorld.At(name); }
  void SyncTree(const std::string& name);
  void SyncTree();
  void StartEngine() { fWorld.Start(fWorld.Options(0, fLimits)); }
  void CompareAll(bool fresh);
  void CompareScope(const std::string& name, const Text& scope, bool fresh);
  void CompareEquivs();

  fakes::CCapturedOutput fOutput;  // keeps what is printed to itself
  CFailingVfs fVfs;
  CEngineWorld fWorld;
  fakes::CRandom fRandom;
  CInfoCacheLimits fLimits;
  CPythonTree fTree{fWorld.fRoot};
  std::map<std::string, File> fFiles;
  std::map<std::string, TextSet> fOldScopes;  // that a file once had
  time_t fSecond = 1700000000;
  bool fExistenceChanged = false;
  std::vector<Text> fSteps;
};

CWalk::CWalk(uint64_t seed) : fRandom(seed) {
  const std::vector<CInfoCacheLimits> limits{{20000, 50}, {12, 2}, {40, 5}, {24, 8}};
  fLimits = fRandom.Of(limits);
  fs::create_directories(fWorld.Path("p"));
  fs::create_directories(fWorld.Path("q"));
  StartEngine();
  for (const std::string& name : kModules) {
    if (IsPackage(name) || !fRandom.OneIn(4)) {
      Put(name, false);
    }
  }
}

Text CWalk::Story() {
  Text text;
  const size_t begin = fSteps.size() - std::min<size_t>(fSteps.size(), 400);
  for (size_t i = begin; i < fSteps.size(); ++i) {
    text += "  " + std::to_string(i) + " " + fSteps[i] + "\n";
  }
  for (const Text& line : fOutput.Take()) {
    text += "  printed: " + line + "\n";
  }
  for (const std::string& failure : fWorld.fFailures) {
    text += "  failed: " + failure + "\n";
  }
  return text + fWorld.fEngine->Cache().DebugDump();
}

std::string CWalk::AnyOf(bool existing) {
  for (;;) {
    const std::string name = AnyName();
    if (CanBe(name) && (fFiles[name].exists || !existing)) {
      return name;
    }
    if (std::none_of(fFiles.begin(), fFiles.end(), [](const auto& f) { return f.second.exists; })) {
      Put("k.py", false);
    }
  }
}

std::vector<Loc> CWalk::SomeLocs() {
  std::vector<Loc> locs;
  for (size_t i = fRandom.Below(4); i > 0; --i) {
    locs.push_back(At(AnyName()));
  }
  return locs;
}

Text CWalk::AnyScope(const std::string& name) {
  if (fRandom.OneIn(3)) {
    return "";
  }
  TextSet names = fTree.ScopeNames(name);
  if (names.empty() || fRandom.OneIn(4)) {
    names.insert(fOldScopes[name].begin(), fOldScopes[name].end());
    names.insert({"C0", "C1", "f0", "Nowhere"});
  }
  std::vector<Text> sorted(names.begin(), names.end());
  std::sort(sorted.begin(), sorted.end());
  return fRandom.Of(sorted);
}

// The tree takes the text that counts: that of a buffer with changes, or the one on disk.
void CWalk::SyncTree(const std::string& name) {
  const COpenBuffer* const buffer = Engine().Buffers().Find(At(name));
  if (buffer != nullptr && buffer->IsModified()) {
    fTree.SetText(name, buffer->GetText());
  } else if (fFiles[name].exists) {
    fTree.SetText(name, ReadSourceFile(fWorld.Path(name)).source);
  } else {
    fTree.SetText(name, std::nullopt);
  }
  fOldScopes[name].merge(fTree.ScopeNames(name));
}

// ---- Steps: files.

void CWalk::Put(const std::string& name, bool by_rename) {
  File& file = fFiles[name];
  fExistenceChanged = fExistenceChanged || !file.exists;
  file.exists = true;
  file.history.push_back({RandomSource(fRandom), ++fSecond});
  Do((by_rename ? "put by rename " : "put ") + name + " " + Repr(file.history.back().text));
  fWorld.Put(by_rename ? "beside" : name, file.history.back().text, fSecond);
  if (by_rename) {
    fs::rename(fWorld.Path("beside"), fWorld.Path(name));
  }
  SyncTree(name);
}

void CWalk::Delete(const std::string& name) {
  if (IsPackage(name)) {
    return;
  }
  Do("delete " + name);
  fExistenceChanged = true;
  for (const std::string& each : {name, name + "i"}) {
    fs::remove(fWorld.Path(each));
    fFiles[each].exists = false;
    SyncTree(each);
  }
}

void CWalk::Restore(const std::string& name) {
  File& file = fFiles[name];
  if (file.history.empty()) {
    return;
  }
  const Content& old = fRandom.Of(file.history);
  Do("restore " + name + " of " + std::to_string(old.second) + " " + Repr(old.text));
  fExistenceChanged = fExistenceChanged || !file.exists;
  file.exists = true;
  fWorld.Put(name, old.text, old.second);
  SyncTree(name);
}

// ---- Steps: buffers.

void CWalk::UseBuffer(const std::string& name) {
  COpenBuffer* const buffer = Engine().Buffers().Find(At(name));
  if (buffer == nullptr) {
    Do("open " + name);
    Engine().Buffers().Open(At(name));
  } else if (fRandom.OneIn(4)) {
    Do("close " + name);
    Engine().CloseBuffer(At(name));
  } else if (buffer->IsModified() && fRandom.OneIn(3)) {
    SaveBuffer(name);
  } else {
    const Text text = RandomSource(fRandom);
    Do("type " + name + " " + Repr(text));
    buffer->SetText(text);
  }
  SyncTree(name);
}

void CWalk::SaveBuffer(const std::string& name) {
  if (!CanBe(name)) {
    return;
  }
  Do("save " + name);
  fExistenceChanged = fExistenceChanged || !fFiles[name].exists;
  // The time of the file is that of the real clock, whose ticks are some milliseconds.
  static timespec last{};
  for (timespec now = last; now.tv_nsec == last.tv_nsec && now.tv_sec == last.tv_sec;) {
    clock_gettime(CLOCK_REALTIME_COARSE, &now);
    if (now.tv_nsec != last.tv_nsec || now.tv_sec != last.tv_sec) {
      last = now;
      break;
    }
  }
  Engine().Buffers().Save(At(name));
  fFiles[name].exists = true;
  if (fRandom.OneIn(2)) {
    Engine().Scans().RequestFile(At(name), 1);
  }
  SyncTree(name);
}

// ---- Steps: reads and scans.

void CWalk::Notice() {
  Engine().Files().CheckWatchedFiles();
  if (std::exchange(fExistenceChanged, false)) {
    Engine().Resolver().Clear();
    singleton::GetSingletons().fAnalysisMgr->fAnalysisFactory->emit(kImportResolutionChanged);
  }
  // An editor reads a file again when it has changed under an unchanged buffer.
  for (const auto& [name, file] : fFiles) {
    const COpenBuffer* const buffer = Engine().Buffers().Find(At(name));
    if (buffer != nullptr && !buffer->IsModified() &&
        buffer->GetLastKnownModTime() != GetFileDiskTime(fWorld.Path(name))) {
      Engine().CloseBuffer(At(name));
      if (file.exists) {
        Engine().Buffers().Open(At(name));
      }
      Engine().Files().CheckWatchedFiles();
    }
  }
  for (const auto& [loc, per_file] : Cache().DbgGetPerFileDict()) {
    Require(per_file->disk_mtime == Cache().GetDiskMTime(loc),
            "the entry of " + loc->fUrl + " has the time " + Repr(per_file->disk_mtime) +
                ", the file " + Repr(Cache().GetDiskMTime(loc)));
  }
}

bool CWalk::Run(int most) {
  int pieces = 0;
  const bool done = Engine().RunScans([&] {
    if (fRandom.OneIn(3)) {
      fWorld.fLoop.RunOneIdle();
    }
    return ++pieces < most;
  });
  Require(done || pieces < kMostPieces, "the scans do not come to an end");
  return done;
}

void CWalk::RunScans() {
  Do("scans");
  switch (fRandom.Below(4)) {
    case 0:
      Run();
      break;
    case 1:
      Run(1 + static_cast<int>(fRandom.Below(3)));
      break;
    case 2:
      Engine().Scans().HandOverReady();
      break;
    default:
      for (size_t i = fRandom.Below(6); i > 0; --i) {
        Engine().Scans().RunOneJob();
      }
  }
}

void CWalk::Read(const std::string& name) {
  const Text scope = AnyScope(name);
  Do("read " + name + " " + scope);
  CNeedsScanDict needs_scan;
  Cache().GetScopeInfo(At(name), scope, !fRandom.OneIn(3), &needs_scan);
  if (!fRandom.OneIn(3)) {
    Engine().Scans().RequestForReader(needs_scan);
  }
}

void CWalk::ReadMany() {
  const std::string name = AnyName();
  std::vector<Text> scopes(fRandom.Below(4));
  std::generate(scopes.begin(), scopes.end(), [&] { return AnyScope(name); });
  const std::vector<Loc> locs = SomeLocs();
  Do("read many of " + name + " " + Repr(scopes));
  switch (fRandom.Below(4)) {
    case 0:
      Cache().GetMultipleScopeInfos(At(name), scopes, fRandom.OneIn(2));
      break;
    case 1:
      Cache().GetAllScopeNames(At(name), fRandom.OneIn(2), fRandom.OneIn(2));
      break;
    case 2:
      Cache().GetAllClasses(locs);
      break;
    default:
      Cache().GetAllImports(locs);
  }
}

// A question that is answered by scans where they are needed: what the file itself and its stub say
// must be right at once.
void CWalk::AskAndCompare(const std::string& name, const Text& scope) {
  Do("ask " + name + " " + scope);
  Cache().CheckForDatabaseChanges();
  Notice();
  int pieces = 0;
  const CScopeInfoPtr told = Engine().Ask(At(name), scope, [&] { return ++pieces < kMostPieces; });
  Require(pieces < kMostPieces, "the answer does not come");
  const auto least = fTree.Expected(name, scope, true);
  Require((told != nullptr) == least.has_value(),
          name + " " + scope + (least ? " is not told" : " does not exist and is told"));
  if (told != nullptr) {
    const CSeen seen = Seen(*told);
    Require(IsPartOf(*least, seen),
            name + " " + scope + " as told and in the file itself:\n" + Difference(seen, *least));
    const auto most = *fTree.Expected(name, scope, false);
    // Of a file that is in a buffer alone, records made before it left the disk are still told.
    Require(!fFiles[name].exists || IsPartOf(seen, most),
            name + " " + scope + " as told and in all files:\n" + Difference(seen, most));
  }
}

// ---- Steps: the database and other processes.

void CWalk::OtherProcess() {
  const size_t how = fRandom.Below(4);
  const std::string name = AnyOf(true);
  Do("another process, way " + std::to_string(how) + ", " + name);
  CFailingVfs::FailAt(0, SQLITE_OK, false);
  if (how < 2) {
    CEngine other(fWorld.Options(0));
    for (size_t i = 1 + fRandom.Below(3); i > 0; --i) {
      other.Scans().RequestFile(other.Locations().GetLocationForPath(fWorld.Path(AnyOf(true))));
    }
    Require(other.RunScans(), "the scans of another process");
    return;
  }
  CLocationCache loc_cache;
  CSqliteAnalysisDb other({.path = fWorld.Path("scopes.db"), .workspace_root = fWorld.fRoot},
                          loc_cache);
  const Loc loc = loc_cache.GetLocationForPath(fWorld.Path(name));
  if (how == 2) {
    other.ClearInfoForFiles({loc});
  } else {
    // It has seen another content of the file.
    const auto rows = other.ReadScopeDataRecords(loc, {Text(kNamesScan)}, {"*"},
                                                 GetFileDiskTime(fWorld.Path(name)));
    other.SaveDataForFile(loc, rows, "", static_cast<DiskTime>(++fSecond));
  }
}

void CWalk::FailSaves() {
  const bool off = fRandom.OneIn(2);
  const int n = 1 + static_cast<int>(fRandom.Below(20));
  const bool all_later = fRandom.OneIn(2);
  Do(off ? "saves succeed" : "saves fail from " + std::to_string(n));
  CFailingVfs::FailAt(off ? 0 : n, fRandom.OneIn(2) ? SQLITE_FULL : SQLITE_IOERR, all_later);
}

void CWalk::LockedWrite() {
  const std::string name = AnyName();
  Do("write while others write: " + name);
  sqlite3* other = nullptr;
  sqlite3_open(fWorld.Path("scopes.db").c_str(), &other);
  sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
  Cache().WriteToDatabase({At(name)});
  sqlite3_close(other);
}

// Ends the process; a kill leaves the database as it is at that moment.
void CWalk::Restart(bool kill) {
  Do(kill ? "kill" : "restart");
  const std::string db = fWorld.Path("scopes.db");
  if (kill) {
    for (const char* const part : {"", "-wal"}) {
      if (fs::exists(db + part)) {
        fs::copy_file(db + part, db + ".copy" + part);
      }
    }
  }
  CFailingVfs::FailAt(0, SQLITE_OK, false);
  fWorld.fEngine.reset();
  if (kill) {
    for (const char* const part : {"", "-wal", "-shm"}) {
      fs::remove(db + part);
      if (fs::exists(db + ".copy" + part)) {
        fs::rename(db + ".copy" + part, db + part);
      }
    }
  }
  StartEngine();
  fExistenceChanged = false;
  // What was typed and not saved is gone.
  for (const auto& [name, file] : fFiles) {
    SyncTree(name);
  }
}

void CWalk::Step() {
  const std::pair<size_t, std::function<void()>> steps[] = {
      {100, [&] { Put(AnyOf(false), fRandom.OneIn(3)); }},
      {20, [&] { Delete(AnyOf(true)); }},
      {20, [&] { Restore(AnyOf(false)); }},
      {100, [&] { UseBuffer(AnyOf(true)); }},
      {60, [&] { Notice(); }},
      {120, [&] { Read(AnyName()); }},
      {40, [&] { ReadMany(); }},
      {120,
       [&] {
         const std::string name = AnyName();
         AskAndCompare(name, AnyScope(name));
       }},
      {30, [&] { Engine().Scans().RequestFile(At(AnyName())); }},
      {100, [&] { RunScans(); }},
      {40, [&] { fWorld.fLoop.RunOneIdle(); }},
      {10, [&] { fWorld.fLoop.Advance(600); }},
      {20, [&] { Do("write"), Cache().WriteToDatabase(); }},
      {15,
       [&] {
         const bool clear_db = fRandom.OneIn(2);
         const std::vector<Loc> locs = SomeLocs();
         Do("clear " + Repr(clear_db) + " " + Repr(locs));
         if (clear_db) {
           // Rows whose deletion succeeds only at a later write are believed in by the cache.
           CFailingVfs::FailAt(0, SQLITE_OK, false);
         }
         Cache().ClearFiles(locs, clear_db);
       }},
      {12, [&] { OtherProcess(); }},
      {20, [&] { Do("check the database"), Cache().CheckForDatabaseChanges(); }},
      {20, [&] { FailSaves(); }},
      {2, [&] { LockedWrite(); }},
      {4, [&] { Restart(false); }},
      {4, [&] { Restart(true); }},
  };
  size_t total = 0;
  for (const auto& [weight, step] : steps) {
    total += weight;
  }
  size_t at = fRandom.Below(total);
  for (const auto& [weight, step] : steps) {
    if (at < weight) {
      step();
      break;
    }
    at -= weight;
  }
  Cache().CheckInvariants();
  fOutput.Take();
}

// ---- The comparison.

void CWalk::CompareScope(const std::string& name, const Text& scope, bool fresh) {
  const Text what = (fresh ? "next process: " : "this process: ") + name + " " + Repr(scope);
  CNeedsScanDict needs_scan;
  const CScopeInfoPtr told = Cache().GetScopeInfo(At(name), scope, true, &needs_scan);
  const auto expected = fTree.Expected(name, scope, false);
  Require((told != nullptr) == expected.has_value(),
          what + (expected ? " is not told" : " does not exist and is told"));
  if (told != nullptr) {
    const CSeen seen = Seen(*told);
    Require(seen == *expected, what + "\n" + Difference(seen, *expected));
  }
  for (const auto& [ref, scans] : needs_scan) {
    for (const Text& scan : scans) {
      const std::string scanned = ref.loc->fUrl.substr(7 + fWorld.fRoot.size() + 1);
      const bool is_there = fTree.Finds(scanned, ref.scope, scan, name, scope) ||
                            fTree.Finds(scanned, ref.scope, scan, name + "i", scope);
      Require(!is_there, what + " asks for " + scanned + " " + Repr(ref.scope) + " " + scan);
    }
  }
}

// Asked before anything is read: the database answers.
void CWalk::CompareEquivs() {
  for (const std::string& name : kModules) {
    std::set<std::pair<Text, Bytes>> classes;
    for (const CClassEquiv& item : Cache().GetAllClasses({At(name)})) {
      classes.emplace("", item.ibytes);
    }
    std::set<std::pair<Text, Bytes>> imports;
    for (const CImportEquiv& item : Cache().GetAllImports({At(name)})) {
      imports.emplace(item.scope_name, item.ibytes);
    }
    Require(!fTree.Exists(name) || classes == fTree.Equivs(name, true), "classes of " + name);
    Require(!fTree.Exists(name) || imports == fTree.Equivs(name, false), "imports of " + name);
  }
}

void CWalk::CompareAll(bool fresh) {
  std::vector<std::string> names = kModules;
  names.insert(names.end(), kStubs.begin(), kStubs.end());
  for (const std::string& name : names) {
    const TextSet expected = fTree.ScopeNames(name);
    const TextSet told = Cache().GetAllScopeNames(At(name));
    Require(!fresh || told == expected,
            "scopes of " + name + ": " + Repr(told) + ", expected: " + Repr(expected));
    TextSet scopes = fOldScopes[name];
    scopes.insert({"", "Nowhere"});
    scopes.insert(expected.begin(), expected.end());
    for (const Text& scope : scopes) {
      CompareScope(name, scope, fresh);
    }
  }
}

void CWalk::Settle() {
  Do("settle");
  CFailingVfs::FailAt(0, SQLITE_OK, false);
  for (const auto& [name, file] : fFiles) {
    if (const COpenBuffer* const buffer = Engine().Buffers().Find(At(name))) {
      if (buffer->IsModified() && fRandom.OneIn(2)) {
        SaveBuffer(name);
      }
      Engine().CloseBuffer(At(name));
      SyncTree(name);
    }
  }
  Cache().CheckForDatabaseChanges();
  Notice();
  for (const auto& [name, file] : fFiles) {
    if (file.exists) {
      Engine().Scans().RequestFile(At(name));
    }
  }
  Run();
  Cache().WriteToDatabase();
  Cache().CheckInvariants();
  CompareAll(false);
  const std::vector<Text> wrong = Engine().Database().Verify();
  Require(wrong.empty(), "the database: " + Repr(wrong));
  Restart(true);
  CompareEquivs();
  CompareAll(true);
  Require(Engine().Scans().GetCounts().files_scanned == 0, "nothing is to be scanned");
  Cache().CheckInvariants();
  fOutput.Take();
}

class EngineRandomTest : public testing::TestWithParam<uint64_t> {};

TEST_P(EngineRandomTest, WhatIsToldIsWhatFreshScansSay) {
  const uint64_t seed = fakes::TestSeed(GetParam());
  const size_t steps = fakes::TestSteps(2000);
  Text failure;
  size_t step = 0;
  for (uint64_t world = seed; step < steps && failure.empty(); ++world) {
    CWalk walk(world);
    size_t i = 0;
    try {
      for (; i < 500 && step < steps; ++i, ++step) {
        walk.Step();
        if (i % 50 == 49) {
          walk.Settle();
        }
      }
      walk.Settle();
    } catch (const std::exception& error) {
      failure = "seed " + std::to_string(world) + ", step " + std::to_string(i) + ": " +
                error.what() + "\n" + walk.Story();
    }
  }
  if (!failure.empty()) {
    ADD_FAILURE() << failure;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, EngineRandomTest, testing::Values(1, 1001, 2001));

}  // namespace
}  // namespace pysource::standalone
