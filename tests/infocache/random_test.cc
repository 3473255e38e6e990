// The cache beside a naive model of it: random steps, then everything that can be seen of the two
// must be equal: results, signals with what they carry, database calls, the database, the watches,
// and the whole inner state as text.
//
// The steps are what a host does: scans are answered, late or never, files are edited, saved,
// deleted, opened and changed in memory, secondary files come and go, the database fails, is
// changed by others, is reopened by the next process. Mostly the host keeps to its duties; now and
// then it breaks one whose consequences are defined.
#include <algorithm>
#include <array>
#include <iostream>

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/scopeinfo/records/vocabulary.h"
#include "tests/fakes/random.h"
#include "tests/infocache/model.h"

namespace pysource::scopeinfo {
namespace {

using fakes::COpenInfoCache;

const std::vector<Text> kScans{":names", ":attrs"};
const std::vector<Text> kScopes{"", "A", "A:", "A.m", "A.B", "f", "g"};

// The calls in an order that does not depend on sets: sorted by file (the order of files is free
// where a set is gone through, that within one file is not), and each with its characters sorted.
std::vector<Text> Normalized(std::vector<Text> calls) {
  const auto second_word = [](const Text& call) {
    const size_t start = std::min(call.find(' '), call.size() - 1);
    return call.substr(start, call.find(' ', start + 1) - start);
  };
  std::stable_sort(calls.begin(), calls.end(),
                   [&](const Text& a, const Text& b) { return second_word(a) < second_word(b); });
  for (Text& call : calls) {
    std::sort(call.begin(), call.end());
  }
  return calls;
}

Text Lines(const std::vector<Text>& lines) {
  Text text;
  for (const Text& line : lines) {
    text += "    " + line + "\n";
  }
  return text;
}

// What the two call by the same name.
CNeedsScanDict NewReport(COpenInfoCache&) { return {}; }
CModel::NeedsDict NewReport(CModel&) { return {}; }

struct CPair {
  CScopeInfoPtr real;
  CModel::Info model;
};
const CScopeInfoPtr& Of(COpenInfoCache&, const CPair& pair) { return pair.real; }
const CModel::Info& Of(CModel&, const CPair& pair) { return pair.model; }

class CTwins {
 public:
  explicit CTwins(uint64_t seed) : fRandom(seed) {
    for (const TextView name : {"a.py", "b.py", "c.py", "d.py", "a.pyi", "b.pyi"}) {
      fFiles.push_back(fHost.File(name));
      fHost.TimeOf(fFiles.back()) = NextTime();
    }
    fakes::CCacheHost::Fake(fFiles[3]).fAsync = true;  // looked at in the background
    const std::vector<CInfoCacheLimits> limits{{20000, 50}, {12, 4}, {16, 2}, {24, 3}, {30, 5}};
    fLimits = fRandom.Of(limits);
    fAssertionsActive = fRandom.Below(3) != 0;
    SetAssertionsActive(fAssertionsActive);
    SetDevelopmentRun(fRandom.OneIn(2));
    fIsCalm = fRandom.OneIn(4);
    Restart();
  }
  ~CTwins() { fHost.Stop(); }

  void Step();
  // Empty as long as the two agree.
  const Text& Failure() const { return fFailure; }
  bool IsOver() const { return fOver; }
  const std::array<size_t, 16>& RoadsTaken() const { return fModel->fRoadsTaken; }

 private:
  // Runs the same on both and compares all. In free order a failing assertion can leave the two in
  // different states, both right: then the world ends.
  template <class Real, class Model>
  void Run(const Text& name, bool order_is_free, Real real, Model model);
  template <class Operation>
  void Both(const Text& name, bool order_is_free, Operation operation) {
    Run(
        name, order_is_free, [&] { return operation(*fHost.fCache); },
        [&] { return operation(*fModel); });
  }
  void SetFailures(const Text& name, bool order_is_free);
  std::vector<std::vector<Text>> ReadsMade() const;
  void Compare(const Text& real_result, const Text& model_result);
  void Restart();

  DiskTime NextTime() {
    ++fClock;
    // Most times do not survive single precision; some do.
    return fRandom.OneIn(8) ? 2.0 + fClock : 1.7e9 + fClock + 0.123;
  }
  DiskTime TimeNow(Loc loc) { return fHost.fCache ? fHost.fCache->GetDiskMTime(loc) : 0; }
  Loc AnyFile() { return fRandom.Of(fFiles); }
  const Text& AnyScope() { return fRandom.Of(kScopes); }
  std::vector<Loc> SomeFiles() {
    std::vector<Loc> files(fRandom.Below(4));
    std::generate(files.begin(), files.end(), [&] { return AnyFile(); });
    return files;
  }
  CPair MakeRecord(Loc loc, const Text& scope, const CNeedsScan& scan,
                   std::optional<DiskTime> mtime);

  Text AsText(const CScopeInfoPtr& merged) const;
  Text AsText(const CModel::Merged& merged) const;
  Text AsText(const CNeedsScanDict& needs_scan);
  Text AsText(const CModel::NeedsDict& needs_scan) const { return Repr(needs_scan); }

  void Read();
  void ReadMany();
  void AnswerScan();
  void AddOne();
  void Finish(const CNeedsScan& scan);
  void Done(Loc loc, const Text& scan, bool done);
  void ChangeOnDisk();
  void UseBuffer();
  void SavePoint(Loc loc, bool not_modified);
  void ChangeScopes();
  void ChangeImports();
  void ChangeByOthers();
  void Write();
  void ClearSome();
  void AddDepKeys();
  void Idle();

  fakes::CWorld fWorld;
  fakes::CCapturedOutput fOutput;  // keeps what is printed to itself
  fakes::CCacheHost fHost{fWorld};
  fakes::CRandom fRandom;
  std::shared_ptr<fakes::CMemoryDbStore> fModelStore = std::make_shared<fakes::CMemoryDbStore>();
  std::unique_ptr<fakes::CMemoryAnalysisDb> fModelDb;
  std::unique_ptr<CModel> fModel;
  CInfoCacheLimits fLimits;
  bool fAssertionsActive = true;
  bool fIsCalm = false;  // all that is queued can be written, so that idle calls come to trim
  std::vector<Loc> fFiles;
  double fClock = 0;
  std::vector<CNeedsScan> fPending;  // scans that were asked for
  std::vector<Text> fOperations;
  Text fNested;  // what was read from within signals, by the one that runs
  Text fFailure;
  bool fOver = false;
};

void CTwins::Restart() {
  fHost.Restart(fLimits);
  fHost.fCache->connect(kScopesModified, [this](CInfoCacheBase&, const CChangedDict& changed) {
    fModel->fOrderHint.clear();
    for (const auto& [loc, scopes] : changed) {
      fModel->fOrderHint.push_back(loc);
    }
  });
  fHost.fCache->connect(kNeedsScanAdded,
                        [this](CInfoCacheBase&, const CNeedsScanSet& needs_scan, Priority) {
                          fPending.insert(fPending.end(), needs_scan.begin(), needs_scan.end());
                        });
  fModelDb = std::make_unique<fakes::CMemoryAnalysisDb>(fModelStore);
  const auto roads = fModel == nullptr ? std::array<size_t, 16>() : fModel->fRoadsTaken;
  fModel = std::make_unique<CModel>(fHost, *fModelDb, fLimits, kScans);
  fModel->fRoadsTaken = roads;
  fModel->fWatched = fHost.fSavableMgr.fWatched;
  fModelDb->connect(kExternalDbContentsChanged, [this](CAnalysisDb&, const CLocSet* changed) {
    std::set<Loc> locs;
    if (changed != nullptr) {
      locs.insert(changed->begin(), changed->end());
    }
    fModel->DatabaseChanged(changed == nullptr ? nullptr : &locs);
  });
}

// Decides what fails in this step, and what handlers of signals do.
void CTwins::SetFailures(const Text& name, bool order_is_free) {
  const bool saves_fail = !fIsCalm && fRandom.OneIn(25);
  const bool clears_fail = fRandom.OneIn(5);
  const bool reads_fail = fRandom.OneIn(40) && !order_is_free;
  const int good_reads = static_cast<int>(fRandom.Below(3));
  for (fakes::CMemoryAnalysisDb* const db : {fHost.fDb.get(), fModelDb.get()}) {
    db->fCalls.clear();
    db->fFailSaves = saves_fail ? 1000 : 0;
    db->fFailClears = clears_fail ? 1000 : 0;
    db->fFailReads = reads_fail ? 1 : 0;
    db->fGoodReads = good_reads;
  }
  const bool handlers_read = fRandom.OneIn(name.starts_with("ClearFiles") ? 2 : 10);
  const Loc loc = AnyFile();
  const Text scope = AnyScope();
  fHost.fOnEvent = [=, this] {
    fNested += handlers_read ? AsText(fHost.fCache->GetScopeInfo(loc, scope)) : "";
  };
  fModel->fOnEvent = [=, this] {
    fNested += handlers_read ? AsText(fModel->GetScopeInfo(loc, scope, true, nullptr)) : "";
  };
  fOperations.push_back(name + (saves_fail ? " (saves fail)" : "") +
                        (reads_fail ? " (a read fails)" : "") +
                        (handlers_read ? " (handlers read)" : ""));
}

// The names in each batched read of the cache in this step.
std::vector<std::vector<Text>> CTwins::ReadsMade() const {
  std::vector<std::vector<Text>> reads;
  for (const Text& call : fHost.fDb->fCalls) {
    if (!call.starts_with("ReadScopeDataRecords")) {
      continue;
    }
    std::vector<Text>& names = reads.emplace_back();
    for (size_t at = call.rfind('['); call[at] != ']';) {
      const size_t open = call.find('\'', at);
      const size_t close = call.find('\'', open + 1);
      names.push_back(call.substr(open + 1, close - open - 1));
      at = close + 1;
    }
  }
  return reads;
}

template <class Real, class Model>
void CTwins::Run(const Text& name, bool order_is_free, Real real, Model model) {
  if (!fFailure.empty() || fOver) {
    return;
  }
  SetFailures(name, order_is_free);
  fHost.fEvents.clear();
  fModel->fEvents.clear();
  fHost.fFactory.fAsked.clear();
  fModel->fAsked.clear();
  const auto outcome = [this](const auto& run) -> Text {
    fNested.clear();
    try {
      if constexpr (std::is_void_v<decltype(run())>) {
        run();
        return fNested;
      } else {
        const Text result = run();
        return result + fNested;
      }
    } catch (const CValueError&) {
      return "value error";
    } catch (const CAssertionError&) {
      return "assertion";
    } catch (const CModel::CAssertionFailed&) {
      return "assertion";
    } catch (const std::exception& error) {
      return Text("failed: ") + error.what();
    }
  };
  const Text real_result = outcome(real);
  fModel->fReadsMade = ReadsMade();
  const Text model_result = outcome(model);
  Compare(real_result, model_result);
  if (!fFailure.empty() && order_is_free && real_result == "assertion" &&
      model_result == "assertion") {
    fFailure.clear();
    fOver = true;
  }
}

void CTwins::Compare(const Text& real_result, const Text& model_result) {
  const auto expect_equal = [&](TextView what, const Text& real, const Text& model) {
    if (real != model) {
      fFailure += FormatBraces("{} differ.\n  cache:\n{}\n  model:\n{}\n", {what, real, model});
    }
  };
  const auto store = [](const fakes::CMemoryAnalysisDb& db) {
    Text text;
    for (const auto& [loc, file] : db.fStore->files) {
      text += FormatBraces("{} {} {}\n", {loc, file.disk_time, file.scans_done});
      for (const auto& [key, row] : file.rows) {
        text += "  " + row.Repr() + "\n";
      }
    }
    return text;
  };
  expect_equal("results", real_result, model_result);
  expect_equal("signals", Lines(fHost.fEvents), Lines(fModel->fEvents));
  const std::vector<Text>& calls = fHost.fDb->fCalls;
  if (calls != fModelDb->fCalls && Normalized(calls) != Normalized(fModelDb->fCalls)) {
    expect_equal("database calls", Lines(calls), Lines(fModelDb->fCalls));
  }
  expect_equal("files asked about", Repr(fHost.fFactory.fAsked), Repr(fModel->fAsked));
  expect_equal("watches", Repr(fHost.fSavableMgr.fWatched), Repr(fModel->fWatched));
  if (fHost.fDb->CallCount("SaveDataForFile") + fHost.fDb->CallCount("ClearInfoForFiles") != 0) {
    expect_equal("stores", store(*fHost.fDb), store(*fModelDb));
  }
  // The sizes of the indexes follow from the sets: that is an invariant.
  Text state = fHost.fCache->DebugDump();
  const size_t indexes = state.find("_fInfoKeysByScannedLoc");
  expect_equal("states", state.erase(indexes, state.find("live records") - indexes),
               fModel->Dump());
  expect_equal("idle calls", Repr(fWorld.fLoop.PendingIdleCount()), Repr(fModel->fIdles.size()));
  SetAssertionsActive(true);
  try {
    fHost.fCache->CheckInvariants();
  } catch (const CAssertionError& error) {
    fFailure += Text("invariant: ") + error.what() + "\n";
  }
  SetAssertionsActive(fAssertionsActive);
  if (!fFailure.empty()) {
    return;
  }
  // Files that came in together stand in an order that is free.
  std::vector<std::pair<Loc, CModel::File>> files;
  for (const auto& [loc, file] : fHost.fCache->DbgGetPerFileDict()) {
    files.push_back(*std::find_if(fModel->fFiles.begin(), fModel->fFiles.end(),
                                  [l = loc](const auto& each) { return each.first == l; }));
  }
  fModel->fFiles = files;
  if (fPending.size() > 40) {
    fPending.erase(fPending.begin(), fPending.end() - 30);
  }
}

// ---- Records and results.

CPair CTwins::MakeRecord(Loc loc, const Text& scope, const CNeedsScan& scan,
                         std::optional<DiskTime> mtime) {
  CModel::CInfo model;
  model.key = {loc, scope, scan.scan_name, scan.scanned_loc, scan.scanned_scope};
  model.mtime = mtime;
  model.incomplete = !fIsCalm && fRandom.OneIn(25);
  model.content.missing = fRandom.OneIn(30);
  // Few versions, so that many a scan finds what was found before.
  model.content.equivs["v"] = ":l" + std::to_string(fRandom.Below(3));
  if (scope.empty()) {
    model.content.equivs["A"] = fRandom.OneIn(3) ? ":cA()" : ":cA(x);:s3";
    model.content.equivs["p"] = ":s1;:fos path;:ip";
  }
  const auto real = std::make_shared<CScopeInfo>(
      CScopeInfoKey(loc, scope, scan.scan_name, scan.scanned_loc, scan.scanned_scope), "", mtime,
      model.incomplete, model.content.missing);
  for (const auto& [name, equivs] : model.content.equivs) {
    real->SetInfoBytes(name, equivs);
  }
  if (!fRandom.OneIn(3)) {
    CScopesSeenDict seen;
    for (size_t i = fRandom.Below(4); i > 0; --i) {
      const Loc seen_loc = fRandom.OneIn(3) ? scan.scanned_loc : AnyFile();
      seen.Set({seen_loc, fRandom.OneIn(9) ? "*" : AnyScope()},
               fRandom.OneIn(12) ? NextTime() : TimeNow(seen_loc));
    }
    real->scope_seen_dict = std::make_shared<CScopesSeenDict>(seen);
    model.seen = std::make_shared<CScopesSeenDict>(seen);
  }
  real->FinishedBuilding();
  model.encoded = real->GetSerializedData();
  CModel::Learn(model);
  return {real, std::make_shared<CModel::CInfo>(model)};
}

Text CTwins::AsText(const CScopeInfoPtr& merged) const {
  if (merged == nullptr) {
    return "None ";
  }
  std::set<Text> keys;
  for (const CScopeInfoKey& key : *merged->merged_keys) {
    keys.insert(key.Repr());
  }
  std::vector<Text> in_order;
  for (const auto& info : merged->_merged_info_list.value_or(std::vector<CScopeInfoPtr>())) {
    in_order.push_back(info->key.Repr());
  }
  std::set<Text> versions;
  for (const BytesView item : NonNestedSplit(merged->type_equivs.Get("v").value_or(""), ';')) {
    versions.emplace(item);
  }
  return FormatBraces("{} {} {} {} {} {} ", {merged->key, keys, in_order, versions,
                                             merged->disk_mtime, merged->incomplete});
}

Text CTwins::AsText(const CModel::Merged& merged) const {
  if (merged == nullptr) {
    return "None ";
  }
  const CModel::Key first = merged->infos[0]->key;
  const CScopeInfoKey key(std::get<0>(first), std::get<1>(first), {}, nullptr, {});
  std::set<Text> keys;
  std::vector<Text> in_order;
  std::set<Text> versions;
  bool incomplete = false;
  for (const CModel::Info& info : merged->infos) {
    if (info != merged->infos[0]) {
      in_order.push_back(CModel::TextOf(info->key));
      keys.insert({in_order.back(), key.Repr()});
    }
    versions.insert(info->content.equivs.at("v"));
    incomplete = incomplete || info->incomplete;
  }
  return FormatBraces("{} {} {} {} {} {} ",
                      {key, keys, in_order, versions, merged->mtime, incomplete});
}

Text CTwins::AsText(const CNeedsScanDict& needs_scan) {
  CModel::NeedsDict sorted;
  for (const auto& [ref, scans] : needs_scan) {
    sorted[{ref.loc, ref.scope}] = CModel::Names(scans.begin(), scans.end());
    for (const Text& scan : scans) {
      fPending.push_back({ref.loc, ref.scope, scan});
    }
  }
  return AsText(sorted);
}

// ---- Steps.

void CTwins::Read() {
  const Loc loc = AnyFile();
  const Text scope = AnyScope();
  const bool merge = !fRandom.OneIn(4);
  const bool reports = !fRandom.OneIn(4);
  Both("GetScopeInfo " + loc->fUrl + " " + scope, false, [&](auto& cache) {
    auto report = NewReport(cache);
    const Text result = AsText(cache.GetScopeInfo(loc, scope, merge, reports ? &report : nullptr));
    return result + AsText(report);
  });
}

void CTwins::ReadMany() {
  const Loc loc = AnyFile();
  std::vector<Text> scopes(fRandom.Below(4));
  std::generate(scopes.begin(), scopes.end(), [&] { return AnyScope(); });
  const bool instances = fRandom.OneIn(2);
  const bool secondary = fRandom.OneIn(2);
  Both("GetMultipleScopeInfos " + loc->fUrl + " " + Repr(scopes), false, [&](auto& cache) {
    Text result;
    for (const auto& info : cache.GetMultipleScopeInfos(loc, scopes)) {
      result += AsText(info);
    }
    const auto names = cache.GetAllScopeNames(loc, instances, secondary);
    return result + Repr(CModel::Names(names.begin(), names.end()));
  });
}

void CTwins::AnswerScan() {
  CNeedsScan scan{AnyFile(), AnyScope(), fRandom.Of(kScans)};
  if (!fPending.empty() && !fRandom.OneIn(3)) {
    const size_t at = fRandom.Below(fPending.size());
    scan = fPending[at];
    fPending.erase(fPending.begin() + static_cast<ptrdiff_t>(at));
    scan.scanned_scope = scan.scanned_scope == "*" ? AnyScope() : scan.scanned_scope;
  }
  const Loc loc = scan.scanned_loc;
  std::vector<CPair> found;
  const auto find = [&](Loc for_loc, const Text& for_scope) {
    found.push_back(MakeRecord(for_loc, for_scope, scan, TimeNow(for_loc)));
  };
  if (!fRandom.OneIn(10)) {
    find(loc, scan.scanned_scope);
  }
  // One scan of the module can find all of it.
  for (const Text& scope : scan.scanned_scope.empty() && fRandom.OneIn(3)
                               ? kScopes
                               : std::vector<Text>(fRandom.Below(2), AnyScope())) {
    find(loc, scope);
  }
  if (fRandom.OneIn(4)) {
    find(AnyFile(), AnyScope());
  }
  const bool allow_write = fRandom.OneIn(5);
  Both(FormatBraces("AddScopeInfoListForSingleScan {}: {} records", {scan, found.size()}), true,
       [&](auto& cache) {
         std::vector<std::decay_t<decltype(Of(cache, found[0]))>> infos;
         for (const CPair& pair : found) {
           infos.push_back(Of(cache, pair));
         }
         cache.AddScopeInfoListForSingleScan(loc, scan.scanned_scope, scan.scan_name, infos,
                                             allow_write);
       });
  if (fRandom.OneIn(2)) {
    Finish(scan);
  }
  if (fRandom.OneIn(3)) {
    Done(loc, scan.scan_name, true);
  }
}

void CTwins::AddOne() {
  const Loc loc = AnyFile();
  const Text scope = AnyScope();
  const CNeedsScan scan{fRandom.OneIn(4) ? AnyFile() : loc, fRandom.OneIn(3) ? AnyScope() : scope,
                        fRandom.Of(kScans)};
  const size_t how = fRandom.Below(10);
  const CPair pair = MakeRecord(loc, scope, scan,
                                how == 0   ? std::nullopt
                                : how == 1 ? std::optional(NextTime())
                                           : std::optional(TimeNow(loc)));
  const bool allow_write = fRandom.OneIn(4);
  Both("AddScopeInfo " + pair.real->key.Repr(), true,
       [&](auto& cache) { return Repr(cache.AddScopeInfo(Of(cache, pair), allow_write)); });
}

void CTwins::Finish(const CNeedsScan& scan) {
  Both("FinishedWithScans " + scan.Repr(), true, [&](auto& cache) {
    cache.FinishedWithScans(scan.scanned_loc, scan.scanned_scope, scan.scan_name);
  });
}

void CTwins::Done(Loc loc, const Text& scan, bool done) {
  const CPerFilePtr* const file = fHost.fCache->DbgGetPerFileDict().Find(loc);
  const bool module_known = file != nullptr && (*file)->serialized_data_dict.Contains(Text());
  // A duty of the host, which it breaks now and then.
  if (scan != kScans[0] || module_known || fRandom.OneIn(30)) {
    Both("ChangeScansDone " + loc->fUrl + " " + scan, false,
         [&](auto& cache) { cache.ChangeScansDone(loc, scan, done); });
  }
}

void CTwins::ChangeOnDisk() {
  CLocMtimeDict changed;
  for (const Loc loc : SomeFiles()) {
    const bool exists = fIsCalm || !fRandom.OneIn(5);
    fakes::CCacheHost::Fake(loc).fExists = exists;
    fHost.TimeOf(loc) = exists ? NextTime() : 0.0;
    loc->fInspectTime = fRandom.OneIn(2) ? 0 : 1;
    changed.Set(loc, exists ? fHost.TimeOf(loc) : fRandom.OneIn(2) ? 0.0 : -1.0);
    const auto buffer = fHost.fCacheMgr.fBuffers.find(loc);
    if (buffer != fHost.fCacheMgr.fBuffers.end() && !buffer->second.fModified) {
      buffer->second.fModTime = fHost.TimeOf(loc);
    }
  }
  if (!fRandom.OneIn(6)) {  // otherwise it is not noticed yet
    Run(
        "external-files-changed " + Repr(changed), false,
        [&] { fHost.fSavableMgr.emit(kExternalFilesChanged, changed); },
        [&] { fModel->ExternalFilesChanged(changed); });
  }
}

void CTwins::SavePoint(Loc loc, bool not_modified) {
  fakes::CFakeSavable savable(loc);
  savable.fInitialReadCompleted = !fRandom.OneIn(20);
  savable.fModTime = fHost.TimeOf(loc);
  Run(
      FormatBraces("save-point {} {}", {loc, not_modified}), false,
      [&] { savable.emit(kSavePoint, not_modified); },
      [&] { fModel->SavePoint(savable, not_modified); });
}

void CTwins::UseBuffer() {
  const Loc loc = AnyFile();
  auto& buffers = fHost.fCacheMgr.fBuffers;
  const auto buffer = buffers.find(loc);
  if (buffer == buffers.end()) {
    buffers[loc].fModTime = fHost.TimeOf(loc);
  } else if (!buffer->second.fModified && fRandom.OneIn(3)) {
    buffers.erase(buffer);
  } else if (!buffer->second.fModified) {
    buffer->second.fModified = true;
    SavePoint(loc, false);
  } else if (fRandom.OneIn(8)) {
    // Closed without saving, which is not always told.
    buffers.erase(buffer);
    if (fRandom.OneIn(2)) {
      SavePoint(loc, true);
    }
  } else {
    fHost.TimeOf(loc) = NextTime();
    fakes::CCacheHost::Fake(loc).fExists = true;
    buffer->second = fakes::CFakeBuffer();
    buffer->second.fModTime = fHost.TimeOf(loc);
    SavePoint(loc, true);
  }
}

void CTwins::ChangeScopes() {
  CPySourceAnalysis ana(AnyFile());
  const DiskTime matched = fRandom.OneIn(2) ? TimeNow(ana.fLocation) : NextTime();
  ana.fLogicalCache.fMatchedDiskMTime = matched;
  CModel::Names scopes;
  for (size_t i = fRandom.Below(4); i > 0; --i) {
    scopes.insert(fRandom.OneIn(5) ? "*" : AnyScope());
  }
  Run(
      "scope-logicals-modified " + ana.fLocation->fUrl + " " + Repr(scopes), true,
      [&] { ana.emit(kScopeLogicalsModified, TextSet(scopes.begin(), scopes.end())); },
      [&] { fModel->ScopeLogicalsModified(ana.fLocation, matched, scopes); });
}

void CTwins::ChangeImports() {
  for (size_t i = 0; i < 4; ++i) {
    std::vector<Loc>& secondary = fHost.fFactory.fSecondary[fFiles[i]];
    secondary.clear();
    std::copy_if(fFiles.begin() + 4, fFiles.end(), std::back_inserter(secondary),
                 [&](Loc) { return fRandom.OneIn(2); });
  }
  Run(
      "import-resolution-changed", false, [&] { fHost.fFactory.emit(kImportResolutionChanged); },
      [&] { fModel->ImportResolutionChanged(); });
}

void CTwins::ChangeByOthers() {
  fakes::CMemoryAnalysisDb others[] = {fakes::CMemoryAnalysisDb(fHost.fStore),
                                       fakes::CMemoryAnalysisDb(fModelStore)};
  for (const Loc loc : SomeFiles()) {
    std::vector<CDatabaseRecord> rows;
    const DiskTime time = TimeNow(loc);
    for (const Text& scope : kScopes) {
      if (time > 1.0 && fRandom.OneIn(2)) {
        const Text scan = fRandom.Of(kScans);
        const CPair pair = MakeRecord(loc, scope, {loc, scope, scan}, time);
        rows.push_back({loc, scope, scan, loc, scope, pair.real->scope_seen_dict, "", "",
                        pair.model->encoded});
      }
    }
    const Text done = fRandom.OneIn(3) ? ":names" : fRandom.OneIn(2) ? ":attrs,:names" : "";
    for (fakes::CMemoryAnalysisDb& other : others) {
      rows.empty() ? other.ClearInfoForFiles({loc}) : other.SaveDataForFile(loc, rows, done, time);
    }
    fOperations.push_back(FormatBraces("others save {} {} rows", {loc, rows.size()}));
  }
  fHost.fDb->fReplaced = fModelDb->fReplaced = fRandom.OneIn(8);
  if (!fRandom.OneIn(4)) {  // otherwise it is not noticed yet
    Run(
        "CheckForDatabaseChanges", false, [&] { fHost.fCache->CheckForDatabaseChanges(); },
        [&] { fModelDb->CheckForExternalChanges(); });
  }
}

void CTwins::Write() {
  const std::vector<Loc> locs = SomeFiles();
  const bool all = fRandom.OneIn(2);
  Both("WriteToDatabase", false,
       [&](auto& cache) { all ? cache.WriteToDatabase() : cache.WriteToDatabase(locs); });
  // With nothing left to write but perhaps that a scan is done, idle calls trim.
  if (fRandom.OneIn(3)) {
    Done(AnyFile(), kScans[1], true);
  }
  for (int i = 0; i < 3 && all; ++i) {
    Idle();
  }
}

void CTwins::ClearSome() {
  const std::vector<Loc> locs = SomeFiles();
  const bool clear_db = fRandom.OneIn(2);
  const bool all = fRandom.OneIn(6);
  Both(FormatBraces("ClearFiles {} {} {}", {locs, clear_db, all}), true,
       [&](auto& cache) { all ? cache.Clear() : cache.ClearFiles(locs, clear_db); });
}

void CTwins::AddDepKeys() {
  CScopeInfoKeySet real;
  CModel::KeySet model;
  for (const CModel::Key& key : fModel->M) {
    if (fRandom.OneIn(10)) {
      const auto& [loc, scope, scan, scanned_loc, scanned_scope] = key;
      real.insert(CScopeInfoKey(loc, scope, scan, scanned_loc, scanned_scope));
      model.insert(key);
    }
  }
  Run(
      "AddDepKeysToNeedsScan " + std::to_string(model.size()), true,
      [&] { fHost.fCache->AddDepKeysToNeedsScan(real, nullptr, 1); },
      [&] { fModel->AddDepKeysToNeedsScan(model, nullptr, 1, true); });
}

void CTwins::Idle() {
  fWorld.fLoop.Advance(1000);
  Run(
      "idle", false, [&] { fWorld.fLoop.RunOneIdle(); },
      [&] {
        // The loop reports what a callback throws, and goes on.
        try {
          fModel->RunOneIdle();
        } catch (const CValueError&) {
        } catch (const CModel::CAssertionFailed&) {
        }
      });
}

void CTwins::Step() {
  const std::pair<size_t, std::function<void()>> steps[] = {
      {270, [&] { Read(); }},
      {50, [&] { ReadMany(); }},
      {220, [&] { AnswerScan(); }},
      {70, [&] { AddOne(); }},
      {30,
       [&] {
         Finish({AnyFile(), fRandom.OneIn(2) ? "*" : AnyScope(), fRandom.Of(kScans)});
       }},
      {30, [&] { Done(AnyFile(), fRandom.Of(kScans), !fRandom.OneIn(4)); }},
      {30, [&] { ChangeOnDisk(); }},
      {fIsCalm ? 0 : 70, [&] { UseBuffer(); }},
      {15, [&] { ChangeScopes(); }},
      {15, [&] { ChangeImports(); }},
      {20, [&] { ChangeByOthers(); }},
      {40, [&] { Write(); }},
      {15, [&] { ClearSome(); }},
      {10,
       [&] {
         const CScopeInfoToRemove item{AnyFile(), AnyScope(), AnyFile(), AnyScope()};
         const auto info = MakeRecord(item.loc, item.for_scope,
                                      {item.scanned_loc, *item.scanned_scope, ":names"}, {});
         fRandom.OneIn(2) ? Run(
                                "RemoveScopeInfoSeq", false,
                                [&] { fHost.fCache->RemoveScopeInfoSeq({info.real}); },
                                [&] { fModel->RemoveScopeInfoSeq({item}); })
                          : Both("RemoveScopeInfoSeq", false,
                                 [&](auto& cache) { cache.RemoveScopeInfoSeq({item}); });
       }},
      {5, [&] { AddDepKeys(); }},
      {3,
       [&] {
         Both("restart", false, [](auto& cache) { cache.destroy(); });
         if (fFailure.empty()) {
           Restart();
         }
       }},
      {90, [&] { Idle(); }},
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
  fOutput.Take();
  if (fOperations.size() > 40) {
    fOperations.erase(fOperations.begin(), fOperations.end() - 30);
  }
  if (!fFailure.empty()) {
    fFailure += "last operations:\n" + Lines(fOperations) + fHost.fCache->DebugDump();
  }
}

TEST(InfoCacheRandomTest, CacheAndModelAgree) {
  const uint64_t seed = fakes::TestSeed();
  const size_t steps = fakes::TestSteps(8000);
  const bool development_run = kDevelopmentRun();
  std::array<size_t, 16> roads{};
  Text failure;
  for (size_t step = 0, world = seed; step < steps && failure.empty(); ++world) {
    CTwins twins(world);
    for (size_t i = 0; i < 2000 && step < steps && failure.empty() && !twins.IsOver(); ++i) {
      twins.Step();
      ++step;
      if (!twins.Failure().empty()) {
        failure = FormatBraces("seed {} (of {}), step {}\n{}", {world, seed, i, twins.Failure()});
      }
    }
    for (size_t i = 0; i < roads.size(); ++i) {
      roads[i] += twins.RoadsTaken()[i];
    }
  }
  SetDevelopmentRun(development_run);
  EXPECT_EQ(failure, "");
  if (steps >= 5000) {
    // A walk that never comes to a stale record, a trim or a dependent scan proves little.
    for (const size_t road : {0, 2, 4, 5, 8, 10, 11, 14}) {
      EXPECT_GT(roads[road], 0U) << "road " << road << " of the model";
    }
  }
}

}  // namespace
}  // namespace pysource::scopeinfo
