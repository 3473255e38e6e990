#include "tests/fakes/cachehost.h"

#include "pysource/host/repr.h"

namespace pysource::fakes {
namespace {

Text NameOf(Loc loc) { return loc->fUrl.substr(loc->fUrl.rfind('/') + 1); }

template <class Items>
Text Joined(const Items& items) {
  Text joined;
  for (const Text& item : items) {
    joined += (joined.empty() ? "" : ", ") + (item.empty() ? "''" : item);
  }
  return "{" + joined + "}";
}

}  // namespace

Text EventText(const CChangedDict& changed) {
  std::set<Text> files;
  for (const auto& [loc, scopes] : changed) {
    files.insert(NameOf(loc) + ": " + Joined(std::set<Text>(scopes->begin(), scopes->end())));
  }
  return "scopes-modified " + Joined(files);
}

Text EventText(const CNeedsScanSet& needs_scan, Priority priority) {
  std::set<Text> scans;
  for (const CNeedsScan& scan : needs_scan) {
    scans.insert("(" + NameOf(scan.scanned_loc) + ", " + scan.scanned_scope + ", " +
                 scan.scan_name + ")");
  }
  return "needs-scan-added " + Joined(scans) + " " + Repr(priority);
}

CCacheHost::CCacheHost(CWorld& world) : fWorld(world) {
  world.fSingletons.fSavableMgr = &fSavableMgr;
  world.fSingletons.fCacheMgr = &fCacheMgr;
  world.fSingletons.fAnalysisMgr = &fManager;
  fManager.fAnalysisFactory = &fFactory;
}

CCacheHost::~CCacheHost() {
  Stop();
  fWorld.fSingletons.fSavableMgr = nullptr;
  fWorld.fSingletons.fCacheMgr = nullptr;
  fWorld.fSingletons.fAnalysisMgr = nullptr;
}

void CCacheHost::Stop() {
  fCache.reset();
  fManager = {nullptr, &fFactory, nullptr};
  fDb.reset();
}

void CCacheHost::Restart(scopeinfo::CInfoCacheLimits limits) {
  Stop();
  fDb = std::make_unique<CMemoryAnalysisDb>(fStore);
  fManager.fAnalysisDb = fDb.get();
  fCache = std::make_unique<COpenInfoCache>(&fManager, &fLocCache, limits);
  fManager.fInfoCache = fCache.get();
  fCache->SetScanNames({":names", ":attrs"});
  const auto note = [this](Text text) {
    fEvents.push_back(std::move(text));
    // A copy, since the function may replace fOnEvent.
    if (const std::function<void()> on_event = fOnEvent) {
      on_event();
    }
  };
  fCache->connect(kScopesModified, [note](CInfoCacheBase&, const CChangedDict& changed) {
    note(EventText(changed));
  });
  fCache->connect(kNeedsScanAdded,
                  [note](CInfoCacheBase&, const CNeedsScanSet& needs_scan, Priority priority) {
                    note(EventText(needs_scan, priority));
                  });
}

Loc CCacheHost::File(TextView name) {
  const Loc loc = fLocCache.GetLocation("file:///src/" + Text(name));
  fSavableMgr.fTimes.emplace(loc, 2.0);
  return loc;
}

scopeinfo::CScopeInfoKey KeyOf(const CRecordSpec& draft) {
  return {draft.loc, draft.scope, draft.scan, draft.scanned_loc ? draft.scanned_loc : draft.loc,
          draft.scanned_scope.value_or(draft.scope)};
}

scopeinfo::CScopeInfoPtr MakeRecord(const CRecordSpec& draft) {
  auto info = std::make_shared<scopeinfo::CScopeInfo>(KeyOf(draft), "", draft.mtime,
                                                      draft.incomplete, draft.missing);
  info->SetInfoBytes("x", draft.x);
  if (!draft.seen.empty()) {
    info->scope_seen_dict = std::make_shared<CScopesSeenDict>();
    for (const auto& [ref, time] : draft.seen) {
      info->scope_seen_dict->Set(ref, time);
    }
  }
  info->FinishedBuilding();
  return info;
}

Text CCacheTest::Standing(const scopeinfo::CScopeInfoKey& key) {
  const scopeinfo::CCrossFileData& cross = Cross();
  Text letters;
  letters += cross._fAllInfoKeys.contains(key) ? "M" : "";
  letters += cross._fAllNeedsScanInfoKeys.contains(key) ? "N" : "";
  letters += cross._fAllInDatabaseInfoKeys.contains(key) ? "D" : "";
  letters += cross._fAllToWriteInfoKeys.contains(key) ? "W" : "";
  letters += cross._fAllCouldNotWriteInfoKeys.contains(key) ? "C" : "";
  return letters + (cross.LookupExistingSourceInfo(key) != nullptr ? "L" : "");
}

Text CCacheTest::Read(Loc loc, TextView scope, bool merge_secondary) {
  scopeinfo::CNeedsScanDict needs_scan;
  const auto info = Cache().GetScopeInfo(loc, scope, merge_secondary, &needs_scan);
  std::set<Text> needs;
  for (const auto& [ref, scans] : needs_scan) {
    needs.insert(NameOf(ref.loc) + ":" + ref.scope + " " +
                 Joined(std::set<Text>(scans.begin(), scans.end())));
  }
  return (info == nullptr ? "None" : "x=" + Text(info->GetInfoBytes("x").value_or(""))) +
         " needs=" + Joined(needs);
}

std::vector<Text> CCacheTest::Printed(const std::function<void()>& run) {
  CCapturedOutput output;
  run();
  return output.Take();
}

}  // namespace pysource::fakes
