// The cache beside a naive model of it: random steps, then everything that can be seen of the two
// must be equal: results, signals with what they carry, lines printed, database calls, the
// database, the watches, and the whole inner state as text.
//
// The steps are what a host does: scans are answered, late or never, files are edited, saved,
// deleted, opened and changed in memory, secondary files come and go, the database fails, is
// changed by others, is reopened by the next process. Mostly the host keeps to its duties; now and
// then it breaks one whose consequences are defined.
#include <algorithm>
#include <cstdlib>
#include <iostream>

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/scopeinfo/records/vocabulary.h"
#include "tests/fakes/random.h"
#include "tests/infocache/model.h"

namespace pysource::scopeinfo {
namespace {

using Key = CModel::Key;

const std::vector<Text> kScans{":names", ":attrs"};
const std::vector<Text> kScopes{"", "A", "A:", "A.m", "A.B", "f", "g"};

// The line with its characters sorted: sets print in any order.
std::vector<Text> Normalized(std::vector<Text> lines) {
  // The order of files is free where a set is gone through, that within one file is not.
  std::stable_sort(lines.begin(), lines.end(), [](const Text& a, const Text& b) {
    const auto second_word = [](const Text& line) {
      const size_t start = std::min(line.find(' '), line.size() - 1);
      return line.substr(start, line.find(' ', start + 1) - start);
    };
    return second_word(a) < second_word(b);
  });
  for (Text& line : lines) {
    // The main loop says what a callback threw.
    line = line.starts_with("main loop: a callback failed") ? "thrown" : line;
    std::sort(line.begin(), line.end());
  }
  return lines;
}

Text Joined(const std::vector<Text>& lines) {
  Text text;
  for (const Text& line : lines) {
    text += "    " + line + "\n";
  }
  return text;
}

class CTwins {
 public:
  explicit CTwins(uint64_t seed) : fRandom(seed) {
    for (const TextView name : {"a.py", "b.py", "c.py", "d.py", "a.pyi", "b.pyi"}) {
      fFiles.push_back(fHost.File(name));
      fHost.TimeOf(fFiles.back()) = NextTime();
    }
    const std::vector<CInfoCacheLimits> limits{{20000, 50}, {12, 4}, {20, 6}, {9, 3}, {30, 10}};
    fLimits = fRandom.Of(limits);
    SetAssertionsActive(fRandom.Below(3) != 0);
    fAssertionsActive = AssertionsActive();
    fIsCalm = fRandom.OneIn(4);
    SetDevelopmentRun(fRandom.OneIn(2));
    Restart();
  }

  void Step();
  bool IsBroken() const { return !fFailure.empty(); }
  const Text& Failure() const { return fFailure; }
  bool IsOver() const { return fOver; }
  std::array<size_t, 16> RoadsTaken() const { return fRoads; }

 private:
  template <class Real, class Model>
  void Run(const Text& name, bool order_is_free, Real real, Model model);
  void Compare(const Text& real_result, const Text& model_result);
  Text StoreText(const fakes::CMemoryDbStore& store) const;
  void Restart();

  DiskTime NextTime() {
    ++fClock;
    // Most times do not survive single precision; some do.
    return fRandom.OneIn(8) ? 2.0 + fClock : 1.7e9 + fClock + 0.123;
  }
  DiskTime TimeNow(Loc loc) {
    const auto buffer = fHost.fCacheMgr.fBuffers.find(loc);
    return buffer == fHost.fCacheMgr.fBuffers.end() ? fHost.TimeOf(loc)
           : buffer->second.fModified               ? -1.0
                                                    : buffer->second.fModTime;
  }
  Loc AnyFile() { return fRandom.Of(fFiles); }
  std::vector<Loc> SomeFiles() {
    std::vector<Loc> files;
    for (size_t i = fRandom.Below(4); i > 0; --i) {
      files.push_back(AnyFile());
    }
    return files;
  }
  struct CPair {
    CScopeInfoPtr real;
    CModel::Info model;
  };
  CPair MakeRecord(Loc loc, const Text& scope, const Text& scan, Loc scanned_loc,
                   const Text& scanned_scope, std::optional<DiskTime> mtime);

  Text Of(const CScopeInfoPtr& merged) const;
  Text Of(const CModel::Merged& merged) const;
  Text Of(const CNeedsScanDict& needs_scan);
  Text Of(const CModel::NeedsDict& needs_scan) const;

  void Read();
  void ReadMany();
  void AnswerScan();
  void AddOne();
  void Finish(Loc loc, const Text& scope, const Text& scan);
  void Done(Loc loc, const Text& scan, bool done);
  void ChangeOnDisk();
  void UseBuffer();
  void SavePoint(Loc loc, bool not_modified);
  void ChangeScopes();
  void ChangeImports();
  void ChangeByOthers();
  void Write();
  void ClearSome();
  void Ask();
  void Remove();
  void AddDepKeys();
  void Idle();

  fakes::CWorld fWorld;
  fakes::CCacheHost fHost{fWorld};
  fakes::CRandom fRandom;
  std::shared_ptr<fakes::CMemoryDbStore> fModelStore = std::make_shared<fakes::CMemoryDbStore>();
  std::unique_ptr<fakes::CMemoryAnalysisDb> fModelDb;
  std::unique_ptr<CModel> fModel;
  std::unique_ptr<fakes::CCapturedOutput> fOutput;
  CInfoCacheLimits fLimits;
  bool fAssertionsActive = true;
  bool fIsCalm = false;  // all that is queued can be written, so that idle calls come to trim
  std::vector<Loc> fFiles;
  double fClock = 0;
  std::vector<CNeedsScan> fPending;  // scans that were asked for
  std::vector<Text> fOperations;
  std::array<size_t, 16> fRoads{};
  Text fNested;  // what was read from within signals, by the one that runs
  Text fFailure;
  bool fOver = false;
};

void CTwins::Restart() {
  fOutput.reset();
  if (fModel != nullptr) {
    for (size_t i = 0; i < fRoads.size(); ++i) {
      fRoads[i] += fModel->fRoadsTaken[i];
    }
  }
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
  fModel = std::make_unique<CModel>(fHost, *fModelDb, fLimits);
  fModel->SetScanNames(kScans);
  fModel->fWatched = fHost.fSavableMgr.fWatched;
  fModelDb->connect(kExternalDbContentsChanged, [this](CAnalysisDb&, const CLocSet* changed) {
    std::set<Loc> locs;
    if (changed != nullptr) {
      locs.insert(changed->begin(), changed->end());
    }
    fModel->DatabaseChanged(changed == nullptr ? nullptr : &locs);
  });
  fOutput = std::make_unique<fakes::CCapturedOutput>();
}

// Runs the same on both and compares all. In free order a failing assertion can leave the two in
// different states, both right: then the world ends.
template <class Real, class Model>
void CTwins::Run(const Text& name, bool order_is_free, Real real, Model model) {
  if (IsBroken() || fOver) {
    return;
  }
  fOperations.push_back(name);
  fHost.fEvents.clear();
  fHost.fDb->fCalls.clear();
  fModel->fEvents.clear();
  fModel->fPrinted.clear();
  fModelDb->fCalls.clear();
  const bool saves_fail = !fIsCalm && fRandom.OneIn(25);
  const bool clears_fail = fRandom.OneIn(5);
  const int good_reads =
      fRandom.OneIn(40) && !order_is_free ? static_cast<int>(fRandom.Below(3)) : -1;
  for (fakes::CMemoryAnalysisDb* const db : {fHost.fDb.get(), fModelDb.get()}) {
    db->fFailSaves = saves_fail ? 1000 : 0;
    db->fFailClears = clears_fail ? 1000 : 0;
    db->fFailReads = good_reads >= 0 ? 1 : 0;
    db->fGoodReads = good_reads;
  }
  if (saves_fail || good_reads >= 0) {
    fOperations.back() += saves_fail ? " (saves fail)" : " (a read fails)";
  }
  if (fRandom.OneIn(10)) {
    const Loc loc = AnyFile();
    const Text scope = fRandom.Of(kScopes);
    fHost.fOnEvent = [this, loc, scope] { fNested += Of(fHost.fCache->GetScopeInfo(loc, scope)); };
    fModel->fOnEvent = [this, loc, scope] {
      fNested += Of(fModel->GetScopeInfo(loc, scope, true, nullptr));
    };
    fOperations.back() += " (reads " + loc->fUrl + " " + scope + " in signals)";
  } else {
    fHost.fOnEvent = nullptr;
    fModel->fOnEvent = nullptr;
  }
  const auto outcome = [this](const auto& run) -> Text {
    fNested.clear();
    try {
      const Text result = run();
      return result + fNested;
    } catch (const CValueError&) {
      return "value error";
    } catch (const CAssertionError&) {
      return "assertion";
    } catch (const CModel::CAssertionFailed&) {
      return "assertion";
    } catch (const std::exception& error) {
      return Text("the model failed: ") + error.what();
    }
  };
  const Text real_result = outcome(real);
  fModel->fReadsMade.clear();
  for (const Text& call : fHost.fDb->fCalls) {
    if (call.starts_with("ReadScopeDataRecords")) {
      std::vector<Text>& names = fModel->fReadsMade.emplace_back();
      size_t start = call.rfind('[');
      while (call[start] != ']') {
        const size_t open = call.find('\'', start);
        const size_t close = call.find('\'', open + 1);
        names.push_back(call.substr(open + 1, close - open - 1));
        start = close + 1;
      }
    }
  }
  const Text model_result = outcome(model);
  Compare(real_result, model_result);
  if (IsBroken() && order_is_free && real_result == "assertion" && model_result == "assertion") {
    fFailure.clear();
    fOver = true;
  }
}

Text CTwins::StoreText(const fakes::CMemoryDbStore& store) const {
  Text text;
  for (const auto& [loc, file] : store.files) {
    text += FormatBraces("{} {} {}\n", {loc, file.disk_time, file.scans_done});
    for (const auto& [key, row] : file.rows) {
      text += "  " + row.Repr() + "\n";
    }
  }
  return text;
}

void CTwins::Compare(const Text& real_result, const Text& model_result) {
  const auto expect_equal = [&](TextView what, const Text& real, const Text& model) {
    if (real != model) {
      fFailure += FormatBraces("{} differ.\n  cache:\n{}\n  model:\n{}\n", {what, real, model});
    }
  };
  const auto expect_lines = [&](TextView what, const std::vector<Text>& real,
                                const std::vector<Text>& model) {
    if (real != model && Normalized(real) != Normalized(model)) {
      expect_equal(what, Joined(real), Joined(model));
    }
  };
  expect_equal("results", real_result, model_result);
  if (fHost.fEvents != fModel->fEvents) {
    expect_equal("signals", Joined(fHost.fEvents), Joined(fModel->fEvents));
  }
  expect_lines("lines printed", fOutput->Take(), fModel->fPrinted);
  expect_lines("database calls", fHost.fDb->fCalls, fModelDb->fCalls);
  if (fHost.fSavableMgr.fWatched != fModel->fWatched) {
    expect_equal("watches", Repr(fHost.fSavableMgr.fWatched), Repr(fModel->fWatched));
  }
  if (fHost.fDb->CallCount("SaveDataForFile") + fHost.fDb->CallCount("ClearInfoForFiles") != 0) {
    expect_equal("stores", StoreText(*fHost.fStore), StoreText(*fModelStore));
  }
  expect_equal("states", fHost.fCache->DebugDump(), fModel->Dump());
  SetAssertionsActive(true);
  try {
    fHost.fCache->CheckInvariants();
  } catch (const CAssertionError& error) {
    fFailure += Text("invariant: ") + error.what() + "\n";
  }
  SetAssertionsActive(fAssertionsActive);
  if (IsBroken()) {
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

// ---- Results as text.

Text CTwins::Of(const CScopeInfoPtr& merged) const {
  if (merged == nullptr) {
    return "None ";
  }
  std::vector<Text> keys;
  for (const CScopeInfoKey& key : *merged->merged_keys) {
    keys.push_back(key.Repr());
  }
  std::sort(keys.begin(), keys.end());
  std::vector<Text> in_order;
  if (merged->_merged_info_list) {
    for (const CScopeInfoPtr& info : *merged->_merged_info_list) {
      in_order.push_back(info->key.Repr());
    }
  }
  std::set<Bytes> versions;
  for (const BytesView item : NonNestedSplit(merged->type_equivs.Get("v").value_or(""), ';')) {
    versions.emplace(item);
  }
  return FormatBraces("{} {} {} {} {} {} ", {merged->key, keys, in_order, versions,
                                             merged->disk_mtime, merged->incomplete});
}

Text CTwins::Of(const CModel::Merged& merged) const {
  if (merged == nullptr) {
    return "None ";
  }
  const Key first = merged->infos[0]->key;
  const CScopeInfoKey key(std::get<0>(first), std::get<1>(first), std::nullopt, nullptr,
                          std::nullopt);
  std::set<Text> keys;
  std::vector<Text> in_order;
  std::set<Bytes> versions;
  bool incomplete = false;
  for (const CModel::Info& info : merged->infos) {
    if (info != merged->infos[0]) {
      keys.insert(CModel::TextOf(info->key));
      in_order.push_back(CModel::TextOf(info->key));
    }
    versions.insert(info->content.equivs.at("v"));
    incomplete = incomplete || info->incomplete;
  }
  if (!keys.empty()) {
    keys.insert(key.Repr());
  }
  return FormatBraces("{} {} {} {} {} {} ", {key, std::vector<Text>(keys.begin(), keys.end()),
                                             in_order, versions, merged->mtime, incomplete});
}

Text CTwins::Of(const CNeedsScanDict& needs_scan) {
  CModel::NeedsDict sorted;
  for (const auto& [ref, scans] : needs_scan) {
    sorted[{ref.loc, ref.scope}] = CModel::Names(scans.begin(), scans.end());
    for (const Text& scan : scans) {
      fPending.push_back({ref.loc, ref.scope, scan});
    }
  }
  return Of(sorted);
}

Text CTwins::Of(const CModel::NeedsDict& needs_scan) const { return Repr(needs_scan); }

CTwins::CPair CTwins::MakeRecord(Loc loc, const Text& scope, const Text& scan, Loc scanned_loc,
                                 const Text& scanned_scope, std::optional<DiskTime> mtime) {
  const bool incomplete = !fIsCalm && fRandom.OneIn(25);
  const bool missing = fRandom.OneIn(30);
  const CPair pair{
      std::make_shared<CScopeInfo>(CScopeInfoKey(loc, scope, scan, scanned_loc, scanned_scope), "",
                                   mtime, incomplete, missing),
      std::make_shared<CModel::CInfo>()};
  CModel::CContent content;
  content.missing = missing;
  // Few versions, so that many a scan finds what was found before.
  content.equivs["v"] = ":l" + std::to_string(fRandom.Below(3));
  if (scope.empty()) {
    content.equivs["A"] = fRandom.OneIn(3) ? ":cA()" : ":cA(x);:s3";
    content.equivs["f"] = ":Ff(x)";
    content.equivs["os"] = ":ios";
    content.equivs["p"] = ":s1;:fos path;:ip";
  } else if (scope == "A") {
    content.equivs["B"] = ":cA.B()";
    content.equivs["m"] = ":mA.m(self);:fq r";
  }
  for (const auto& [name, equivs] : content.equivs) {
    pair.real->SetInfoBytes(name, equivs);
  }
  if (!fRandom.OneIn(3)) {
    CScopesSeenDict seen;
    for (size_t i = fRandom.Below(4); i > 0; --i) {
      const Loc seen_loc = fRandom.OneIn(3) ? scanned_loc : AnyFile();
      seen.Set({seen_loc, fRandom.OneIn(9) ? "*" : fRandom.Of(kScopes)},
               fRandom.OneIn(12) ? NextTime() : TimeNow(seen_loc));
    }
    pair.real->scope_seen_dict = std::make_shared<CScopesSeenDict>(seen);
    pair.model->seen = std::make_shared<CScopesSeenDict>(seen);
  }
  pair.real->FinishedBuilding();
  pair.model->key = {loc, scope, scan, scanned_loc, scanned_scope};
  pair.model->content = content;
  pair.model->mtime = mtime;
  pair.model->incomplete = incomplete;
  pair.model->encoded = pair.real->GetSerializedData();
  return pair;
}

// ---- Steps.

void CTwins::Read() {
  const Loc loc = AnyFile();
  const Text scope = fRandom.Of(kScopes);
  const bool merge = !fRandom.OneIn(4);
  const bool report = !fRandom.OneIn(4);
  Run(
      "GetScopeInfo " + loc->fUrl + " " + scope, false,
      [&] {
        CNeedsScanDict needs_scan;
        const Text result =
            Of(fHost.fCache->GetScopeInfo(loc, scope, merge, report ? &needs_scan : nullptr));
        return result + Of(needs_scan);
      },
      [&] {
        CModel::NeedsDict needs_scan;
        const Text result =
            Of(fModel->GetScopeInfo(loc, scope, merge, report ? &needs_scan : nullptr));
        return result + Of(needs_scan);
      });
}

void CTwins::ReadMany() {
  const Loc loc = AnyFile();
  std::vector<Text> scopes;
  for (size_t i = fRandom.Below(4); i > 0; --i) {
    scopes.push_back(fRandom.Of(kScopes));
  }
  const bool instances = fRandom.OneIn(2);
  const bool secondary = fRandom.OneIn(2);
  Run(
      "GetMultipleScopeInfos " + loc->fUrl + " " + Repr(scopes), false,
      [&] {
        Text result;
        for (const CScopeInfoPtr& info : fHost.fCache->GetMultipleScopeInfos(loc, scopes)) {
          result += Of(info);
        }
        const TextSet names = fHost.fCache->GetAllScopeNames(loc, instances, secondary);
        return result + Repr(CModel::Names(names.begin(), names.end()));
      },
      [&] {
        Text result;
        for (const CModel::Merged& merged : fModel->GetMultipleScopeInfos(loc, scopes)) {
          result += Of(merged);
        }
        return result + Repr(fModel->GetAllScopeNames(loc, instances, secondary));
      });
}

void CTwins::AnswerScan() {
  CNeedsScan scan{AnyFile(), fRandom.Of(kScopes), fRandom.Of(kScans)};
  if (!fPending.empty() && !fRandom.OneIn(3)) {
    const size_t at = fRandom.Below(fPending.size());
    scan = fPending[at];
    fPending.erase(fPending.begin() + static_cast<ptrdiff_t>(at));
    scan.scanned_scope = scan.scanned_scope == "*" ? fRandom.Of(kScopes) : scan.scanned_scope;
  }
  const Loc loc = scan.scanned_loc;
  std::vector<CScopeInfoPtr> real;
  std::vector<CModel::Info> model;
  const auto add = [&](Loc for_loc, const Text& for_scope) {
    const CPair pair =
        MakeRecord(for_loc, for_scope, scan.scan_name, loc, scan.scanned_scope, TimeNow(for_loc));
    real.push_back(pair.real);
    model.push_back(pair.model);
  };
  if (!fRandom.OneIn(10)) {
    add(loc, scan.scanned_scope);
  }
  if (scan.scanned_scope.empty() && fRandom.OneIn(3)) {
    // One scan of the module can find all of it.
    for (const Text& scope : kScopes) {
      add(loc, scope);
    }
  }
  if (fRandom.OneIn(3)) {
    add(loc, fRandom.Of(kScopes));
  }
  if (fRandom.OneIn(4)) {
    add(AnyFile(), fRandom.Of(kScopes));
  }
  const bool allow_write = fRandom.OneIn(5);
  Run(
      FormatBraces("AddScopeInfoListForSingleScan {}: {} records", {scan, real.size()}), true,
      [&] {
        fHost.fCache->AddScopeInfoListForSingleScan(loc, scan.scanned_scope, scan.scan_name, real,
                                                    allow_write);
        return Text();
      },
      [&] {
        fModel->AddScopeInfoListForSingleScan(loc, scan.scanned_scope, scan.scan_name, model,
                                              allow_write);
        return Text();
      });
  if (fRandom.OneIn(2)) {
    Finish(loc, scan.scanned_scope, scan.scan_name);
  }
  if (fRandom.OneIn(3)) {
    Done(loc, scan.scan_name, true);
  }
}

void CTwins::AddOne() {
  const Loc loc = AnyFile();
  const Loc scanned_loc = fRandom.OneIn(4) ? AnyFile() : loc;
  const Text scope = fRandom.Of(kScopes);
  const Text scanned_scope = fRandom.OneIn(3) ? fRandom.Of(kScopes) : scope;
  const size_t how = fRandom.Below(10);
  const CPair pair = MakeRecord(loc, scope, fRandom.Of(kScans), scanned_loc, scanned_scope,
                                how == 0   ? std::nullopt
                                : how == 1 ? std::optional(NextTime())
                                           : std::optional(TimeNow(loc)));
  const bool allow_write = fRandom.OneIn(4);
  Run(
      "AddScopeInfo " + pair.real->key.Repr(), true,
      [&] { return Repr(fHost.fCache->AddScopeInfo(pair.real, allow_write)); },
      [&] { return Repr(fModel->AddScopeInfo(pair.model, allow_write)); });
}

void CTwins::Finish(Loc loc, const Text& scope, const Text& scan) {
  Run(
      "FinishedWithScans " + loc->fUrl + " " + scope + " " + scan, true,
      [&] {
        fHost.fCache->FinishedWithScans(loc, scope, scan);
        return Text();
      },
      [&] {
        fModel->FinishedWithScans(loc, scope, scan);
        return Text();
      });
}

void CTwins::Done(Loc loc, const Text& scan, bool done) {
  const CPerFilePtr* const file = fHost.fCache->DbgGetPerFileDict().Find(loc);
  const bool module_known = file != nullptr && (*file)->serialized_data_dict.Contains(Text());
  if (scan == kScans[0] && !module_known && !fRandom.OneIn(30)) {
    return;  // a duty of the host
  }
  Run(
      "ChangeScansDone " + loc->fUrl + " " + scan, false,
      [&] {
        fHost.fCache->ChangeScansDone(loc, scan, done);
        return Text();
      },
      [&] {
        fModel->ChangeScansDone(loc, scan, done);
        return Text();
      });
}

void CTwins::ChangeOnDisk() {
  CLocMtimeDict changed;
  for (const Loc loc : SomeFiles()) {
    const bool exists = fIsCalm || !fRandom.OneIn(5);
    fakes::CCacheHost::Fake(loc).fExists = exists;
    fHost.TimeOf(loc) = exists ? NextTime() : 0.0;
    changed.Set(loc, exists ? fHost.TimeOf(loc) : fRandom.OneIn(2) ? 0.0 : -1.0);
    const auto buffer = fHost.fCacheMgr.fBuffers.find(loc);
    if (buffer != fHost.fCacheMgr.fBuffers.end() && !buffer->second.fModified) {
      buffer->second.fModTime = fHost.TimeOf(loc);
    }
  }
  if (fRandom.OneIn(6)) {
    return;  // not noticed yet
  }
  Run(
      "external-files-changed " + Repr(changed), false,
      [&] {
        fHost.fSavableMgr.emit(kExternalFilesChanged, changed);
        return Text();
      },
      [&] {
        fModel->ExternalFilesChanged(changed);
        return Text();
      });
}

void CTwins::SavePoint(Loc loc, bool not_modified) {
  fakes::CFakeSavable savable(loc);
  savable.fInitialReadCompleted = !fRandom.OneIn(20);
  savable.fModTime = fHost.TimeOf(loc);
  Run(
      FormatBraces("save-point {} {}", {loc, not_modified}), false,
      [&] {
        savable.emit(kSavePoint, not_modified);
        return Text();
      },
      [&] {
        fModel->SavePoint(savable, not_modified);
        return Text();
      });
}

void CTwins::UseBuffer() {
  const Loc loc = AnyFile();
  auto& buffers = fHost.fCacheMgr.fBuffers;
  const auto buffer = buffers.find(loc);
  if (buffer == buffers.end()) {
    buffers[loc].fModTime = fHost.TimeOf(loc);
    fOperations.push_back("open " + loc->fUrl);
    return;
  }
  if (!buffer->second.fModified) {
    if (fRandom.OneIn(3)) {
      buffers.erase(buffer);
      fOperations.push_back("close " + loc->fUrl);
      return;
    }
    buffer->second.fModified = true;
    SavePoint(loc, false);
    return;
  }
  if (fRandom.OneIn(8)) {
    // Closed without saving.
    buffers.erase(buffer);
    if (fRandom.OneIn(3)) {
      return;
    }
  } else {
    fHost.TimeOf(loc) = NextTime();
    fakes::CCacheHost::Fake(loc).fExists = true;
    buffer->second = fakes::CFakeBuffer();
    buffer->second.fModTime = fHost.TimeOf(loc);
  }
  SavePoint(loc, true);
}

void CTwins::ChangeScopes() {
  CPySourceAnalysis ana(AnyFile());
  ana.fLogicalCache.fMatchedDiskMTime = fRandom.OneIn(2) ? TimeNow(ana.fLocation) : NextTime();
  CModel::Names scopes;
  for (size_t i = fRandom.Below(4); i > 0; --i) {
    scopes.insert(fRandom.OneIn(5) ? "*" : fRandom.Of(kScopes));
  }
  Run(
      "scope-logicals-modified " + ana.fLocation->fUrl + " " + Repr(scopes), true,
      [&] {
        ana.emit(kScopeLogicalsModified, TextSet(scopes.begin(), scopes.end()));
        return Text();
      },
      [&] {
        fModel->ScopeLogicalsModified(ana.fLocation, ana.fLogicalCache.fMatchedDiskMTime, scopes);
        return Text();
      });
}

void CTwins::ChangeImports() {
  for (size_t i = 0; i < 4; ++i) {
    std::vector<Loc>& secondary = fHost.fFactory.fSecondary[fFiles[i]];
    secondary.clear();
    for (size_t of = 4; of < 6; ++of) {
      if (fRandom.OneIn(2)) {
        secondary.push_back(fFiles[of]);
      }
    }
  }
  Run(
      "import-resolution-changed", false,
      [&] {
        fHost.fFactory.emit(kImportResolutionChanged);
        return Text();
      },
      [&] {
        fModel->ImportResolutionChanged();
        return Text();
      });
}

void CTwins::ChangeByOthers() {
  fakes::CMemoryAnalysisDb others[] = {fakes::CMemoryAnalysisDb(fHost.fStore),
                                       fakes::CMemoryAnalysisDb(fModelStore)};
  for (const Loc loc : SomeFiles()) {
    std::vector<CDatabaseRecord> rows;
    const DiskTime time = TimeNow(loc);
    for (const Text& scope : kScopes) {
      if (time > 1.0 && fRandom.OneIn(2)) {
        const CPair pair = MakeRecord(loc, scope, fRandom.Of(kScans), loc, scope, time);
        rows.push_back({loc, scope, Text(*pair.real->key.scan_name()), loc, scope,
                        pair.real->scope_seen_dict, "", "", pair.model->encoded});
        // Decoding is not the model's: it knows what was stored.
        fModel->Learn(*pair.model);
      }
    }
    const Text done = fRandom.OneIn(3) ? ":names" : fRandom.OneIn(2) ? ":attrs,:names" : "";
    for (fakes::CMemoryAnalysisDb& other : others) {
      rows.empty() ? other.ClearInfoForFiles({loc}) : other.SaveDataForFile(loc, rows, done, time);
    }
    fOperations.push_back(FormatBraces("others save {} {} rows", {loc, rows.size()}));
  }
  if (fRandom.OneIn(8)) {
    fHost.fDb->fReplaced = true;
    fModelDb->fReplaced = true;
  }
  if (fRandom.OneIn(4)) {
    return;  // not noticed yet
  }
  Run(
      "CheckForDatabaseChanges", false,
      [&] {
        fHost.fCache->CheckForDatabaseChanges();
        return Text();
      },
      [&] {
        fModel->fPrinted.push_back(fModelDb->CheckForExternalChanges());
        return Text();
      });
}

void CTwins::Write() {
  const std::vector<Loc> locs = SomeFiles();
  const bool all = fRandom.OneIn(2);
  Run(
      "WriteToDatabase", false,
      [&] {
        all ? fHost.fCache->WriteToDatabase() : fHost.fCache->WriteToDatabase(locs);
        return Text();
      },
      [&] {
        fModel->WriteToDatabase(all ? nullptr : &locs);
        return Text();
      });
  // With nothing left to write, idle calls trim.
  for (int i = 0; i < 3 && all; ++i) {
    Idle();
  }
}

void CTwins::ClearSome() {
  const std::vector<Loc> locs = SomeFiles();
  const bool clear_db = fRandom.OneIn(2);
  const bool all = fRandom.OneIn(6);
  Run(
      FormatBraces("ClearFiles {} {} {}", {locs, clear_db, all}), true,
      [&] {
        all ? fHost.fCache->Clear() : fHost.fCache->ClearFiles(locs, clear_db);
        return Text();
      },
      [&] {
        all ? fModel->Clear() : fModel->ClearFiles(locs, clear_db);
        return Text();
      });
}

void CTwins::Ask() {
  const std::vector<Loc> locs = SomeFiles();
  const Loc loc = AnyFile();
  const bool read = fRandom.OneIn(2);
  CLocMtimeDict times;
  for (const Loc each : locs) {
    times.Set(each, fRandom.OneIn(3) ? NextTime() : TimeNow(each));
  }
  Run(
      "questions " + loc->fUrl + " " + Repr(times), false,
      [&] {
        std::map<Loc, Text> done;
        for (const auto& [each, text] : fHost.fCache->GetScansDoneForMultipleFiles(times)) {
          done[each] = text;
        }
        std::set<Text> imports;
        for (const CImportEquiv& import : fHost.fCache->GetAllImports(locs)) {
          imports.insert(Repr(import.loc) + import.scope_name + import.ibytes);
        }
        return Repr(done) + Repr(imports) + Repr(fHost.fCache->GetDiskModTimeUsed(loc, read));
      },
      [&] {
        const auto done = fModel->GetScansDoneForMultipleFiles(times);
        std::set<Text> imports;
        for (const CImportEquiv& import : fModel->GetAllImports(locs)) {
          imports.insert(Repr(import.loc) + import.scope_name + import.ibytes);
        }
        return Repr(done) + Repr(imports) + Repr(fModel->GetDiskModTimeUsed(loc, read));
      });
  std::vector<Text> in_order;
  if (const CPerFilePtr* const file = fHost.fCache->DbgGetPerFileDict().Find(loc)) {
    for (const Text& name : (*file)->GetScopeNamesInMemory()) {
      in_order.push_back(name);
    }
  }
  const auto sorted = [](std::vector<CClassEquiv> classes) {
    std::sort(classes.begin(), classes.end());
    Text text;
    for (const CClassEquiv& each : classes) {
      text += each.ibytes + " ";
    }
    return text;
  };
  Run(
      "GetAllClasses " + loc->fUrl, false,
      [&] { return sorted(fHost.fCache->GetAllClasses({loc})); },
      [&] { return sorted(fModel->GetAllClasses(loc, in_order)); });
}

void CTwins::Remove() {
  const Loc loc = AnyFile();
  const Text scope = fRandom.Of(kScopes);
  Run(
      "RemoveScopeInfoSeq " + loc->fUrl + " " + scope, false,
      [&] {
        fHost.fCache->RemoveScopeInfoSeq({CScopeInfoToRemove{loc, scope, loc, scope}});
        return Text();
      },
      [&] {
        fModel->RemoveScopeInfoSeq(loc, scope, loc, scope);
        return Text();
      });
}

void CTwins::AddDepKeys() {
  CScopeInfoKeySet real;
  CModel::KeySet model;
  for (const Key& key : fModel->M) {
    if (fRandom.OneIn(10)) {
      const auto& [loc, scope, scan, scanned_loc, scanned_scope] = key;
      real.insert(CScopeInfoKey(loc, scope, scan, scanned_loc, scanned_scope));
      model.insert(key);
    }
  }
  Run(
      "AddDepKeysToNeedsScan " + std::to_string(model.size()), true,
      [&] {
        fHost.fCache->AddDepKeysToNeedsScan(real, nullptr, 1);
        return Text();
      },
      [&] {
        fModel->AddDepKeysToNeedsScan(model, nullptr, 1, true);
        return Text();
      });
}

void CTwins::Idle() {
  fWorld.fLoop.Advance(1000);
  Run(
      "idle", false,
      [&] {
        fWorld.fLoop.RunOneIdle();
        return Text();
      },
      [&] {
        // The loop reports what a callback throws, and goes on.
        try {
          fModel->RunOneIdle();
        } catch (const std::exception&) {
          fModel->fPrinted.emplace_back("thrown");
        } catch (const CModel::CAssertionFailed&) {
          fModel->fPrinted.emplace_back("thrown");
        }
        return Text();
      });
}

void CTwins::Step() {
  const size_t what = fRandom.Below(1000);
  if (what < 270) {
    Read();
  } else if (what < 320) {
    ReadMany();
  } else if (what < 540) {
    AnswerScan();
  } else if (what < 610) {
    AddOne();
  } else if (what < 640) {
    Finish(AnyFile(), fRandom.OneIn(2) ? "*" : fRandom.Of(kScopes), fRandom.Of(kScans));
  } else if (what < 670) {
    Done(AnyFile(), fRandom.Of(kScans), !fRandom.OneIn(4));
  } else if (what < 700) {
    ChangeOnDisk();
  } else if (what < 770 && !fIsCalm) {
    UseBuffer();
  } else if (what < 785) {
    ChangeScopes();
  } else if (what < 800) {
    ChangeImports();
  } else if (what < 820) {
    ChangeByOthers();
  } else if (what < 860) {
    Write();
  } else if (what < 875) {
    ClearSome();
  } else if (what < 900) {
    Ask();
  } else if (what < 910) {
    Remove();
  } else if (what < 915) {
    AddDepKeys();
  } else if (what < 918) {
    Run(
        "restart", false,
        [&] {
          fHost.fCache->destroy();
          return Text();
        },
        [&] {
          fModel->Destroy();
          return Text();
        });
    if (!IsBroken()) {
      Restart();
    }
  } else {
    Idle();
  }
  if (fOperations.size() > 40) {
    fOperations.erase(fOperations.begin(), fOperations.end() - 30);
  }
  if (IsBroken()) {
    fFailure += "last operations:\n" + Joined(fOperations) + fHost.fCache->DebugDump();
  }
  if (IsBroken() || fOver) {
    fOutput.reset();
  }
}

size_t StepsFromEnvironment() {
  const char* const steps = std::getenv("SCOPEINFO_TEST_STEPS");
  return steps != nullptr ? std::strtoull(steps, nullptr, 10) : 12000;
}

TEST(InfoCacheRandomTest, CacheAndModelAgree) {
  const uint64_t seed = fakes::TestSeed();
  const bool development_run = kDevelopmentRun();
  std::array<size_t, 16> roads{};
  const size_t steps = StepsFromEnvironment();
  size_t worlds = 0;
  for (size_t step = 0; step < steps;) {
    CTwins twins(seed + worlds++);
    for (size_t i = 0; i < 2000 && step < steps && !twins.IsOver(); ++i, ++step) {
      twins.Step();
      if (twins.IsBroken()) {
        SetDevelopmentRun(development_run);
        FAIL() << "seed " << seed << ", world " << worlds - 1 << ", step " << i << " of it\n"
               << twins.Failure();
      }
    }
    for (size_t i = 0; i < roads.size(); ++i) {
      roads[i] += twins.RoadsTaken()[i];
    }
  }
  SetDevelopmentRun(development_run);
  std::cout << "roads taken: " << Repr(std::vector<size_t>(roads.begin(), roads.end())) << "\n";
}

}  // namespace
}  // namespace pysource::scopeinfo
