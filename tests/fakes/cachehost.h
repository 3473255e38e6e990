// Fakes of all services that an info cache needs, which a test sets up by hand.
//
// None of them acts on its own: a test says which files exist and when they were modified, which
// buffers are open and which files are secondary to which, and emits the signals itself. They leave
// out the disk, editors and import resolution.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <utility>
#include <vector>

#include "pysource/host/logger.h"
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

  std::map<Loc, DiskTime> fTimes;  // on disk; zero for a file that does not exist
  std::set<Loc> fWatched;
  std::vector<Loc> fAsked;  // the files whose times were requested
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

// The cache with its protected operations public for tests.
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

// The signal as text, whatever the order of its sets: "scopes-modified {a.py: {f, g}}" and
// "needs-scan-added {(a.py, f, :names)} None".
Text EventText(const CChangedDict& changed);
Text EventText(const CNeedsScanSet& needs_scan, Priority priority);

// One cache with its fakes, in a world. The scan names are ":names" and ":attrs".
struct CCacheHost {
  explicit CCacheHost(CWorld& world);
  ~CCacheHost();

  // Destroys the cache and makes a new one over the same store, as a restart does.
  void Restart(scopeinfo::CInfoCacheLimits limits = {});
  void Stop();

  // The location of "a.py", say; the file exists with the time 2.0, until a test changes that.
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
  // Called during the emission, after each event was noted.
  std::function<void()> fOnEvent;
};

// One record. The fields that a test does not set have the simplest values.
struct CRecordSpec {
  Loc loc;
  Text scope;
  Text scan = ":names";
  Loc scanned_loc = nullptr;                         // if absent: loc
  std::optional<Text> scanned_scope = std::nullopt;  // if absent: scope
  Bytes x = ":s1";                                   // the info bytes of the name "x"
  std::vector<std::pair<CScopeRef, DiskTime>> seen = {};
  bool incomplete = false;
  bool missing = false;
  std::optional<DiskTime> mtime = std::nullopt;
};
scopeinfo::CScopeInfoPtr MakeRecord(const CRecordSpec& draft);
scopeinfo::CScopeInfoKey KeyOf(const CRecordSpec& draft);

// A fixture with a cache. The files "a.py", "b.py" and "c.py" have the time 2.0 on disk.
class CCacheTest : public CWorldTest {
 protected:
  CCacheTest() { fHost.Restart(); }

  scopeinfo::CInfoCache& Cache() { return *fHost.fCache; }
  CMemoryAnalysisDb& Db() { return *fHost.fDb; }
  scopeinfo::CCrossFileData& Cross() { return Cache().DbgGetCrossFileData(); }
  scopeinfo::CPerFilePtr Entry(Loc loc) { return fHost.fCache->GetPerFile(loc, true); }
  // Adds this one record as the result of its scan.
  void Scan(const CRecordSpec& draft) {
    const scopeinfo::CScopeInfoPtr info = MakeRecord(draft);
    Cache().AddScopeInfoListForSingleScan(info->scanned_loc, *info->scanned_scope, draft.scan,
                                          {info});
  }
  // The letters of the key sets that the key is in: M known, N needs scan, D in the database, W to
  // write, C could not be written, L has a live record.
  Text Standing(const scopeinfo::CScopeInfoKey& key);
  // The answer of GetScopeInfo: "x=... needs={...}" or "None needs={...}".
  Text Read(Loc loc, TextView scope, bool merge_secondary = true);
  // Calls `run` and returns the lines that it printed.
  static std::vector<Text> Printed(const std::function<void()>& run);
  std::vector<Text> TakeEvents() { return std::exchange(fHost.fEvents, {}); }
  std::vector<Text> TakeCalls() { return std::exchange(Db().fCalls, {}); }

  CCacheHost fHost{fWorld};
  const Loc kA = fHost.File("a.py");
  const Loc kB = fHost.File("b.py");
  const Loc kC = fHost.File("c.py");
};

// Captures the lines that the module prints while it exists.
class CCapturedOutput {
 public:
  CCapturedOutput() {
    SetLineSink([this](TextView line) { _fLines.emplace_back(line); });
  }
  ~CCapturedOutput() { SetLineSink(nullptr); }
  CCapturedOutput(const CCapturedOutput&) = delete;
  CCapturedOutput& operator=(const CCapturedOutput&) = delete;

  // The lines since the last call.
  std::vector<Text> Take() { return std::exchange(_fLines, {}); }

 private:
  std::vector<Text> _fLines;
};

}  // namespace pysource::fakes
