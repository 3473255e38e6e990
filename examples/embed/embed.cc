// The smallest possible host for the info cache: no SQLite, no main loop library, no parser. Start
// reading at main() at the bottom; the classes above it are the services that the cache needs from
// your editor.
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "pysource/host/manualloop.h"
#include "pysource/host/singleton.h"
#include "pysource/scopeinfo/scopeinfo.h"

using namespace pysource;             // the host's side
using namespace pysource::scopeinfo;  // the module

// ---- 1. The database. Yours stores rows on disk; this one keeps those of one file in a map.
class CMapDb final : public CAnalysisDb {
 public:
  std::vector<Text> ReadScopeNames(Loc loc, TextView scan, DiskTime mtime) override {
    std::vector<Text> names;
    for (const CDatabaseRecord& row : Rows(loc, mtime)) {
      if (row.scan_name == scan) names.push_back(row.for_scope);
    }
    return names;
  }
  std::vector<CDatabaseRecord> ReadScopeDataRecords(Loc loc, const std::vector<Text>&,
                                                    const std::vector<Text>&,
                                                    DiskTime mtime) override {
    std::vector<CDatabaseRecord> rows = Rows(loc, mtime);  // more than requested is allowed
    for (CDatabaseRecord& row : rows) {  // the caller gets its own copy of the scopes seen
      if (row.scopes_seen) row.scopes_seen = std::make_shared<CScopesSeenDict>(*row.scopes_seen);
    }
    return rows;
  }
  CScansDoneDict GetScansDone(const CLocMtimeDict& asked) override {
    CScansDoneDict done;
    for (const auto& [loc, mtime] : asked) {
      const auto file = _fFiles.find(loc->fUrl);
      if (file != _fFiles.end() && file->second.mtime == mtime)
        done.Set(loc, file->second.scans_done);
    }
    return done;
  }
  bool SaveDataForFile(Loc loc, const std::vector<CDatabaseRecord>& rows, TextView scans_done,
                       DiskTime mtime) override {
    File& file = _fFiles[loc->fUrl];
    if (file.mtime != mtime) file = File{mtime, {}, {}};
    for (const CDatabaseRecord& row : rows) {
      file.rows[row.for_scope + *row.scan_name + *row.scanned_scope] = row;
    }
    file.scans_done = scans_done;
    return true;  // after false, the records stay queued in the cache
  }
  bool ClearInfoForFiles(const std::vector<Loc>& locs) override {
    for (const Loc loc : locs) _fFiles.erase(loc->fUrl);
    return true;
  }
  std::vector<CImportEquiv> GetAllImports(const std::vector<Loc>&, TextView) override { return {}; }
  std::vector<CClassEquiv> GetAllClasses(const std::vector<Loc>&, TextView) override { return {}; }
  Text CheckForExternalChanges() override { return "nobody else writes to a map"; }

 private:
  struct File {
    DiskTime mtime = 0;
    Text scans_done;
    std::map<Text, CDatabaseRecord> rows;
  };
  std::vector<CDatabaseRecord> Rows(Loc loc, DiskTime mtime) {
    std::vector<CDatabaseRecord> rows;
    const File& file = _fFiles[loc->fUrl];
    for (const auto& [key, row] : file.rows) {
      if (file.mtime == mtime) rows.push_back(row);
    }
    return rows;
  }
  std::map<Text, File> _fFiles;
};

// ---- 2. Files, buffers and analyses. An editor has all three; here there is one file that is
// never edited.
constexpr DiskTime kTime = 1234567890.5;

class CFileOnDisk final : public CResourceLocation {
 public:
  using CResourceLocation::CResourceLocation;
  bool DoesResourceExist() const override { return true; }
};
class CFiles final : public CSavableManager {
  void AddFileLocToWatch(Loc) override {}  // yours watches; it reports by kExternalFilesChanged
  void RemoveLocToWatch(Loc) override {}
  std::vector<DiskTime> GetLastModTimes(const std::vector<Loc>& locs, bool) override {
    return std::vector<DiskTime>(locs.size(), kTime);
  }
};
class CNoBuffers final : public CCacheManager {
  CCacheBuffer* DoesCacheBufferExist(Loc, bool) override { return nullptr; }
};
class CNoStubs final : public CAnalysisFactory {
  std::vector<Loc> GetSecondaryLocations(Loc) override { return {}; }
};

// ---- 3. A scan: yours reads source. One call returns what one scan of one scope finds.
std::vector<CScopeInfoPtr> Scan(Loc loc, TextView scope, TextView scan_name) {
  const CScopeInfoKey key(loc, scope, scan_name, loc, scope);
  if (scan_name != ":names") return {};
  const bool is_module = IsTopLevelModuleScope(scope);
  auto info = std::make_shared<CScopeInfo>(key, is_module ? ":Mshapes" : ":cCircle(Shape)", kTime,
                                           /*incomplete=*/false);
  if (is_module) {
    info->SetInfoBytes("Circle", ":cCircle(Shape)");
  } else {
    info->SetInfoBytes("radius", ":s2;:lfloat");
    info->SetInfoBytes("area", ":s3;:mCircle.area(self)");
  }
  // The scopes that were read to make the record: when one of them changes, the record is stale.
  info->scope_seen_dict = std::make_shared<CScopesSeenDict>();
  info->scope_seen_dict->Set(CScopeRef{loc, Text(scope)}, kTime);
  info->FinishedBuilding();
  return {info};
}

int main() {
  // The services of the cache. All of them exist before the cache and outlive it.
  velk::CManualLoop loop;  // call loop.RunIdle() and loop.Advance(ms) from your own event loop
  velk::SetMainLoop(&loop);
  CFiles files;
  CNoBuffers buffers;
  CNoStubs stubs;
  CMapDb db;
  CAnalysisManager manager{.fAnalysisDb = &db, .fAnalysisFactory = &stubs};
  CSingletons singletons;
  singletons.fSavableMgr = &files;
  singletons.fCacheMgr = &buffers;
  singletons.fAnalysisMgr = &manager;
  singleton::SetSingletons(&singletons);

  const CFileOnDisk shapes("file:///project/shapes.py");
  const Loc loc = &shapes;
  int scans_run = 0;

  // The same query in two sessions of the editor: the second one finds the answer in the database.
  for (int life = 1; life <= 2; ++life) {
    CInfoCache cache(&manager, nullptr);
    manager.fInfoCache = &cache;
    cache.SetScanNames({":names", ":attrs"});

    // Read the scope. With a null answer, or a stale one, come the scans that would make it better.
    CNeedsScanDict needs_scan;
    CScopeInfoPtr circle = cache.GetScopeInfo(loc, "Circle", true, &needs_scan);
    if (!needs_scan.empty()) {
      std::printf("life %d: to scan: %s\n", life, Repr(needs_scan).c_str());
      // Run the scans, for the whole file at once, since one parse finds all of its scopes. Add the
      // results of one scan of one scope at a time, then note the scans as done.
      for (const char* const scope : {"", "Circle"}) {
        for (const Text& scan_name : cache.fScanNames) {
          cache.AddScopeInfoListForSingleScan(loc, scope, scan_name, Scan(loc, scope, scan_name));
          ++scans_run;
        }
      }
      for (const Text& scan_name : cache.fScanNames) {
        cache.ChangeScansDone(loc, scan_name, true);
        cache.FinishedWithScans(loc, kWildcardScope, scan_name);
      }
      // Read it again.
      circle = cache.GetScopeInfo(loc, "Circle");
    }
    if (circle == nullptr || scans_run != 4) {
      std::printf("life %d: no answer\n", life);
      return EXIT_FAILURE;
    }
    std::printf("life %d: %s\n", life, circle->Repr().c_str());
    for (const auto& [name, ibytes] : circle->type_equivs) {
      std::printf("  %-8.*s %.*s\n", static_cast<int>(name.size()), name.data(),
                  static_cast<int>(ibytes.size()), ibytes.data());
    }
    // The destructor of the cache writes what is unwritten.
  }
  velk::SetMainLoop(nullptr);
  singleton::SetSingletons(nullptr);
  return EXIT_SUCCESS;
}
