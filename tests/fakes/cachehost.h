// Everything that an info cache asks of its surroundings, as fakes that a test sets up by hand.
//
// None of them acts on its own: a test says which files exist and when they were modified, which
// buffers are open, which files are secondary to which, and emits the signals itself. Left out: the
// disk, editors, import resolution.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "pysource/scopeinfo/infocache/infocache.h"
#include "tests/fakes/memorydb.h"
#include "tests/fakes/world.h"

namespace pysource::fakes {

class CFakeLocation final : public CResourceLocation {
 public:
  using CResourceLocation::CResourceLocation;
  bool DoesResourceExist() const override {
    ++fTimesAsked;
    return fExists;
  }
  bool IsAsyncInspected() const override { return fAsync; }

  mutable bool fExists = true;
  mutable bool fAsync = false;
  mutable int fTimesAsked = 0;
};

class CFakeLocationCache final : public CLocationCache {
 protected:
  std::unique_ptr<CResourceLocation> MakeLocation(TextView url) const override {
    return std::make_unique<CFakeLocation>(Text(url));
  }
};

class CFakeSavableManager final : public CSavableManager {
 public:
  void AddFileLocToWatch(Loc loc) override {
    fOnAsked();
    fWatched.insert(loc);
  }
  void RemoveLocToWatch(Loc loc) override { fWatched.erase(loc); }
  std::vector<DiskTime> GetLastModTimes(const std::vector<Loc>& loc_list, bool) override {
    fAsked.insert(fAsked.end(), loc_list.begin(), loc_list.end());
    fOnAsked();
    std::vector<DiskTime> times;
    for (const Loc loc : loc_list) {
      times.push_back(fTimes[loc]);
    }
    return times;
  }

  std::map<Loc, DiskTime> fTimes;  // on disk; zero for a file that is not there
  std::set<Loc> fWatched;
  std::vector<Loc> fAsked;  // whose times were asked for
  std::function<void()> fOnAsked = [] {};
};

class CFakeSavable final : public CSavable {
 public:
  using CSavable::CSavable;
  bool GetInitialReadCompleted() const override { return fInitialReadCompleted; }
  DiskTime GetLastKnownModTime() const override { return fModTime; }

  bool fInitialReadCompleted = true;
  DiskTime fModTime = 2.0;
};

class CFakeBuffer final : public CCacheBuffer {
 public:
  bool IsModified() const override { return fModified; }
  DiskTime GetLastKnownModTime() const override { return fModTime; }

  bool fModified = false;
  DiskTime fModTime = 2.0;
};

class CFakeCacheManager final : public CCacheManager {
 public:
  CCacheBuffer* DoesCacheBufferExist(Loc loc, bool) override {
    const auto buffer = fBuffers.find(loc);
    return buffer == fBuffers.end() ? nullptr : &buffer->second;
  }

  std::map<Loc, CFakeBuffer> fBuffers;
};

class CFakeFactory final : public CAnalysisFactory {
 public:
  std::vector<Loc> GetSecondaryLocations(Loc loc) override {
    fAsked.push_back(loc);
    fOnAsked();
    return fSecondary[loc];
  }

  std::map<Loc, std::vector<Loc>> fSecondary;
  std::vector<Loc> fAsked;
  std::function<void()> fOnAsked = [] {};
};

// The cache with its inner operations open to tests.
class COpenInfoCache final : public scopeinfo::CInfoCache {
 public:
  COpenInfoCache(CAnalysisManager* ana_mgr, CLocationCache* loc_cache,
                 scopeinfo::CInfoCacheLimits limits)
      : CInfoCache(ana_mgr, loc_cache, limits) {
    TakeShortcuts();
  }
  using CInfoCache::GetPerFile;
  using CInfoCache::GetSecondaryFiles;
  using CInfoCache::InvalidateScans;
};

// A text that does not depend on the order of sets: "scopes-modified {a.py: {f, g}}" and
// "needs-scan-added {(a.py, f, :names)} None".
Text EventText(const CChangedDict& changed);
Text EventText(const CNeedsScanSet& needs_scan, Priority priority);

// A world with one cache in it. The scan names are ":names" and ":attrs".
struct CCacheHost {
  explicit CCacheHost(CWorld& world);
  ~CCacheHost();

  // Ends the cache and makes a new one over the same store, as a restart does.
  void Restart(scopeinfo::CInfoCacheLimits limits = {});
  void Stop();

  // "a.py"; it exists, and its time on disk is 2.0 until a test changes that.
  Loc File(TextView name);
  static const CFakeLocation& Fake(Loc loc) { return static_cast<const CFakeLocation&>(*loc); }
  DiskTime& TimeOf(Loc loc) { return fSavableMgr.fTimes[loc]; }

  CWorld& fWorld;
  CFakeLocationCache fLocCache;
  CFakeSavableManager fSavableMgr;
  CFakeCacheManager fCacheMgr;
  CFakeFactory fFactory;
  std::shared_ptr<CMemoryDbStore> fStore = std::make_shared<CMemoryDbStore>();
  std::unique_ptr<CMemoryAnalysisDb> fDb;
  CAnalysisManager fManager;
  std::unique_ptr<COpenInfoCache> fCache;

  // What the cache has emitted.
  std::vector<Text> fEvents;
  // Called after each event was noted, from within the emission.
  std::function<void()> fOnEvent;
};

// One record; what a test does not name is the plainest there is.
struct CRecordSpec {
  Loc loc;
  Text scope;
  Text scan = ":names";
  Loc scanned_loc = nullptr;                         // absent: loc
  std::optional<Text> scanned_scope = std::nullopt;  // absent: scope
  Bytes x = ":s1";                                   // what the name "x" is
  std::vector<std::pair<CScopeRef, DiskTime>> seen = {};
  bool incomplete = false;
  bool missing = false;
  std::optional<DiskTime> mtime = std::nullopt;
};
scopeinfo::CScopeInfoPtr MakeRecord(const CRecordSpec& draft);
scopeinfo::CScopeInfoKey KeyOf(const CRecordSpec& draft);

// A test case with a cache, in which files "a.py", "b.py" and "c.py" have the time 2.0 on disk.
class CCacheTest : public CWorldTest {
 protected:
  CCacheTest() { fHost.Restart(); }

  scopeinfo::CInfoCache& Cache() { return *fHost.fCache; }
  CMemoryAnalysisDb& Db() { return *fHost.fDb; }
  scopeinfo::CCrossFileData& Cross() { return Cache().DbgGetCrossFileData(); }
  scopeinfo::CPerFilePtr Entry(Loc loc) { return fHost.fCache->GetPerFile(loc, true); }
  // Answers the scan of the record with this one record.
  void Scan(const CRecordSpec& draft) {
    const scopeinfo::CScopeInfoPtr info = MakeRecord(draft);
    Cache().AddScopeInfoListForSingleScan(info->scanned_loc, *info->scanned_scope, draft.scan,
                                          {info});
  }
  // The letters of the key sets that the key is in: M known, N needs scan, D in the database, W to
  // write, C could not be written, L has a live record.
  Text Standing(const scopeinfo::CScopeInfoKey& key);
  // What GetScopeInfo says: "x=... needs={...}" or "None needs={...}".
  Text Read(Loc loc, TextView scope, bool merge_secondary = true);
  // Runs it and returns the lines that it printed.
  static std::vector<Text> Printed(const std::function<void()>& run);
  std::vector<Text> TakeEvents() { return std::exchange(fHost.fEvents, {}); }
  std::vector<Text> TakeCalls() { return std::exchange(Db().fCalls, {}); }

  CCacheHost fHost{fWorld};
  const Loc kA = fHost.File("a.py");
  const Loc kB = fHost.File("b.py");
  const Loc kC = fHost.File("c.py");
};

// What is printed on the standard output while this lives. Nothing else is printed meanwhile, so
// end it before a test reports a failure.
class CCapturedOutput {
 public:
  CCapturedOutput();
  ~CCapturedOutput();
  // The lines since the last call.
  std::vector<Text> Take();

 private:
  std::FILE* const _fFile;
  const int _fStdout;
};

}  // namespace pysource::fakes
