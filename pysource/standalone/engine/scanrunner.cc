#include "pysource/standalone/engine/scanrunner.h"

#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <chrono>
#include <optional>

#include "pysource/host/assertions.h"
#include "pysource/host/symbolinfo/kinds.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/standalone/files/filestamp.h"

namespace pysource::standalone {
namespace {

// A reader waits for its answer; a report without a priority comes with something a reader looked
// at.
constexpr int kReaderUrgency = 20;
constexpr int kDefaultUrgency = 10;
constexpr int kBulkUrgency = 0;

constexpr auto kGone = static_cast<DiskTime>(scopeinfo::kFileDoesNotExistMtime);

// The priority of reports about scopes that change as the user types.
constexpr int kUnderTheHands = 1;

// How often the records of one scan are handed over again because others of it made them stale.
// Once settles what real code does; a scanner whose records chased each other for ever must not.
constexpr int kMostRoundsInFile = 4;

int UrgencyOf(Priority priority) {
  // Of the reports, scopes that change under the user's hands (1) come before files that changed
  // outside (2).
  return priority ? kDefaultUrgency - *priority : kDefaultUrgency;
}

// The rule of CScanRow::for_scanned_scope.
void AssertRestsOnOthers(const CScanRow& row, Loc loc, const CScanResult& scan) {
  if (!row.is_primary && row.for_scanned_scope) {
    for (const scopeinfo::CScopeInfoPtr& info : scan.infos) {
      Assert(info->scope_seen_dict == nullptr ||
             !info->scope_seen_dict->Contains(CScopeRef{loc, scan.scanned_scope}));
    }
  }
}

}  // namespace

CScanRunner::CScanRunner(scopeinfo::CInfoCache& cache, CSqliteAnalysisDb& db, CFileManager& files,
                         CDiskTimes& times, COpenBuffers& buffers, const CImportResolver& resolver,
                         Options options)
    : CDestroyable({}),
      _fCache(cache),
      _fDb(db),
      _fFiles(files),
      _fTimes(times),
      _fBuffers(buffers),
      _fWorkers(options.threads, times, resolver, std::move(options.notify),
                options.max_file_bytes) {
  _fCache.connect_while_alive(
      kNeedsScanAdded,
      [this](const CInfoCacheBase&, const CNeedsScanSet& needs_scan, Priority priority) {
        CB_NeedsScanAdded(needs_scan, priority);
      },
      *this);
  _fCache.connect_while_alive(
      kScopesModified, [this](const CInfoCacheBase&, const CChangedDict&) { ++_fWorld; }, *this);
  class_connect_while_alive(
      kScopeLogicalsModified,
      [this](const CPySourceAnalysis& ana, const TextSet& scopes) {
        CB_ScopesChanged(ana, scopes);
      },
      *this);
  class_connect_while_alive(
      kSavePoint,
      [this](const CSavable& savable, bool not_modified) {
        if (not_modified) {
          // The file has a new time from here on. A later change back to the one before would
          // otherwise look like none.
          _fFiles.CheckFile(savable.fLocation);
        }
      },
      *this);
}

CScanRunner::~CScanRunner() { destroy(); }

bool CScanRunner::IsModified(Loc loc) const {
  const COpenBuffer* const buffer = _fBuffers.Find(loc);
  return buffer != nullptr && buffer->IsModified();
}

uint64_t CScanRunner::ContentOf(Loc loc) const {
  // Odd numbers are versions of a buffer, even ones times of a file.
  return IsModified(loc) ? _fBuffers.Find(loc)->Version() * 2 + 1
                         : (std::bit_cast<uint64_t>(_fTimes.TimeOf(loc)) << 1) | uint64_t{1} << 63;
}

uint64_t CScanRunner::LookOf(Loc loc) const {
  struct stat status {};
  const auto path = PathForLocation(loc);
  return IsModified(loc)                             ? ContentOf(loc)
         : path && stat(path->c_str(), &status) == 0 ? CContentMark::Of(StampOf(status), 0).seal | 1
                                                     : 1;
}

void CScanRunner::CB_NeedsScanAdded(const CNeedsScanSet& needs_scan, Priority priority) {
  ++_fWorld;
  for (const CNeedsScan& scan : needs_scan) {
    WithdrawClaim(scan);
    Want(scan.scanned_loc, scan.scanned_scope, scan.scan_name, UrgencyOf(priority));
  }
  Dispatch();
}

// The cache marks what the change makes stale, but for a file that it has no entry of: what such a
// file said of others can be in memory all the same.
void CScanRunner::CB_ScopesChanged(const CPySourceAnalysis& ana, const TextSet& scopes) {
  if (_fCache.IsFileHeld(ana.fLocation)) {
    return;
  }
  const scopeinfo::CScopeInfoKeySet keys = _fCache.GetKeysScannedFrom(ana.fLocation, &scopes);
  if (!keys.empty()) {
    _fCache.AddDepKeysToNeedsScan(keys, nullptr, kUnderTheHands);
  }
}

// A file that waits to be written, its module scope among what became stale, must not claim its
// scans as done: what is written next would lack the scope that the claim stands on.
void CScanRunner::WithdrawClaim(const CNeedsScan& scan) {
  if (scan.scan_name != kPrimaryScan.name || !IsTopLevelModuleScope(scan.scanned_scope)) {
    return;
  }
  const auto file = _fCache.GetFileHeld(scan.scanned_loc);
  if (file && !file->is_module_in_database) {
    _fCache.ForgetScansDone(scan.scanned_loc);
  }
}

bool CScanRunner::IsClaimedDone(Loc loc) const {
  const auto file = _fCache.GetFileHeld(loc);
  return file && file->is_primary_scan_done;
}

void CScanRunner::RequestFile(Loc loc, Priority priority) {
  const int urgency = priority ? UrgencyOf(priority) : kBulkUrgency;
  Want(loc, kWildcardScope, kPrimaryScan.name, urgency);
  Dispatch();
}

void CScanRunner::RequestFileLast(Loc loc) {
  const bool is_new = !_fWanted.contains(loc);
  Want(loc, kWildcardScope, kPrimaryScan.name, kBulkUrgency);
  if (is_new) {
    _fWanted[loc].is_last = true;
  }
  Dispatch();
}

void CScanRunner::RequestForReader(const scopeinfo::CNeedsScanDict& needs_scan_dict) {
  for (const auto& [scope, scan_names] : needs_scan_dict) {
    const FileState& state = _fStates[scope.loc];
    const bool same = state.world == _fWorld && state.content == ContentOf(scope.loc);
    for (const Text& scan_name : scan_names) {
      if (same && (state.ran.all || state.ran.scans.contains({scope.scope, scan_name}))) {
        continue;
      }
      // A reader knows of one scope; its neighbours in the same file are about to be asked for, and
      // the parse is paid for either way. A file that was never scanned is scanned whole, and so is
      // one that was forgotten since: of a scope that it does not know the cache asks for the names
      // alone.
      const bool whole = state.content == 0 || !IsClaimedDone(scope.loc);
      Want(scope.loc, whole ? kWildcardScope : TextView(scope.scope), scan_name, kReaderUrgency);
      _fWanted[scope.loc].is_last = false;
    }
  }
  Dispatch();
}

void CScanRunner::Want(Loc loc, TextView scope, TextView scan_name, int urgency) {
  if (!loc) {
    return;
  }
  Wanted& wanted = _fWanted[loc];
  wanted.urgency = std::max(wanted.urgency, urgency);
  if (scope == kWildcardScope) {
    // One parse gives all scans: a whole file is always scanned by all of them.
    wanted.all = true;
    wanted.scans.clear();
  } else if (!wanted.all) {
    wanted.scans.emplace(scope, scan_name);
    if (scan_name == kPrimaryScan.name) {
      // What made this one stale may concern the others, which have no record of their own as long
      // as they find nothing (see the scanner).
      for (const CScanRow& other : kScans) {
        wanted.scans.emplace(scope, other.name);
      }
    }
  }
}

bool CScanRunner::IsOnlyLastWanted() const {
  return _fInHand == 0 && std::all_of(_fWanted.begin(), _fWanted.end(),
                                      [](const auto& wanted) { return wanted.second.is_last; });
}

void CScanRunner::Dispatch() {
  const bool with_last = IsOnlyLastWanted();
  for (auto it = _fWanted.begin(); it != _fWanted.end();) {
    // A file in hand is given again when its result is there: two results could overtake each
    // other.
    if (_fStates[it->first].in_hand || (it->second.is_last && !with_last)) {
      ++it;
      continue;
    }
    const Loc loc = it->first;
    Wanted wanted = std::move(it->second);
    it = _fWanted.erase(it);
    GiveJob(loc, std::move(wanted));
  }
}

void CScanRunner::GiveJob(Loc loc, Wanted wanted) {
  FileState& state = _fStates[loc];
  const uint64_t look = LookOf(loc);
  if (state.failed_look == look) {
    return;
  }
  CScanJob job{.loc = loc, .unsaved_text = std::nullopt, .look = look};
  if (IsModified(loc)) {
    job.unsaved_text = _fBuffers.Find(loc)->GetText();
  }
  const int urgency = wanted.urgency;
  state.in_hand = true;
  state.running = std::move(wanted);
  ++_fInHand;
  _fWorkers.Give(std::move(job), urgency);
}

size_t CScanRunner::HandOverReady(unsigned wait_ms, size_t most) {
  size_t handed_over = 0;
  while (handed_over < most) {
    const auto result = _fWorkers.Take(handed_over == 0 ? wait_ms : 0);
    if (!result) {
      break;
    }
    const auto start = std::chrono::steady_clock::now();
    HandOver(*result);
    _fCounts.hand_over_seconds +=
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    ++handed_over;
  }
  return handed_over;
}

void CScanRunner::HandOver(const CScanJobResult& result) {
  const Loc loc = result.job.loc;
  --_fInHand;
  // It counts as in hand until everything of it is handed over, so that what is asked for meanwhile
  // waits.
  const Wanted wanted = std::exchange(_fStates[loc].running, {});

  // What happened to the file meanwhile is told before anything of the result is: the cache then
  // moves its entry to the present time, and asks for what that makes stale. So the entry must be
  // there, which an empty question sees to. Its time is what counts then: that of an open buffer
  // can be behind that of the file, until its owner reads the file again.
  if (result.error.empty()) {
    _fCache.GetMultipleScopeInfos(loc, {});
  }
  _fFiles.CheckFile(loc);
  // Likewise of the files that the result is for. One that has gone makes the scan wrong about what
  // an import means.
  const std::vector<Loc> others = OthersOf(result);
  bool is_other_gone = false;
  for (const Loc other : others) {
    _fFiles.CheckFile(other);
    is_other_gone |= _fFiles.GetLastModTimes({other}, true).front() == kGone;
  }
  const uint64_t content = ContentOf(loc);
  const bool is_present =
      !is_other_gone &&
      (result.job.unsaved_text
           ? content == result.job.look
           : result.error.empty() && _fCache.GetDiskModTimeUsed(loc, false) == result.disk_mtime);
  if (result.error.empty() && !is_present) {
    ++_fCounts.dropped;
    Want(loc, kWildcardScope, kPrimaryScan.name, wanted.urgency);
  } else if (!result.error.empty() && LookOf(loc) != result.job.look) {
    // Another content by now, perhaps: that one may be readable.
    Want(loc, kWildcardScope, kPrimaryScan.name, wanted.urgency);
  } else if (!result.error.empty()) {
    Fail(result.job.look, {loc, result.error});
  } else {
    try {
      AddResults(result, wanted, others);
      const uint64_t last_content = _fStates[loc].content;
      if (last_content != 0 && last_content != content) {
        TellOtherFiles(result);
      }
      FileState& state = _fStates[loc];
      // After the results, whose own changes are no reason to run the scan again.
      state.content = content;
      state.world = _fWorld;
      state.ran = wanted;
      state.failed_look = 0;
      if (fOnScanned) {
        fOnScanned(result);
      }
    } catch (const std::exception& error) {
      // The database, or a handler of the cache's signals. What was added is; the rest is for the
      // next scan of the file.
      Fail(result.job.look,
           {loc, std::string("its scan could not be taken in: ") + error.what(), true});
    }
  }
  _fStates[loc].in_hand = false;
  Dispatch();
}

void CScanRunner::Fail(uint64_t look, const Failure& failure) {
  // What the database refused is no fault of the content: whoever asks again may have more luck.
  const bool is_news =
      failure.was_scanned || std::exchange(_fStates[failure.loc].failed_look, look) != look;
  if (is_news && fOnFailure) {
    fOnFailure(failure);
  }
}

void CScanRunner::AddResults(const CScanJobResult& result, const Wanted& wanted,
                             const std::vector<Loc>& others) {
  const Loc loc = result.job.loc;
  ++_fCounts.files_scanned;
  _fCounts.source_bytes += result.source_bytes;
  _fCounts.encoded_bytes += result.encoded_bytes;
  _fCounts.syntax_errors += result.scan.error_count;
  _fCounts.files_with_syntax_errors += result.scan.error_count != 0 ? 1 : 0;
  AddWanted(result, wanted);
  // A record can make another one of the same scan stale: what a function sets on its own module is
  // news for the record of the module. What is wanted then is here already and is handed over
  // again, which settles it: a record that comes out unchanged is news for nobody. The cache is
  // asked what is stale, since the scans of a file that is wanted whole again are not listed here.
  for (int round = 0; round < kMostRoundsInFile; ++round) {
    Wanted stale;
    const auto again = _fWanted.find(loc);
    if (again != _fWanted.end() && !again->second.all) {
      stale = std::move(again->second);
      _fWanted.erase(again);
    }
    for (const scopeinfo::CScopeInfoKey& key : _fCache.GetStaleKeysScannedFrom(loc)) {
      stale.scans.emplace(key.scanned_scope().value_or(""), key.scan_name().value_or(""));
    }
    if (stale.scans.empty()) {
      break;
    }
    AddWanted(result, stale);
  }
  if (wanted.all) {
    ForgetScopesThatAreGone(result);
  }
  if (others.empty()) {
    Write(loc, others, wanted.all);
  } else if (!_fDb.Together([&] { Write(loc, others, wanted.all); })) {
    // The cache believes that all of it is stored.
    AddWanted(result, wanted);
  }
}

std::vector<Loc> CScanRunner::OthersOf(const CScanJobResult& result) {
  std::vector<Loc> others;
  for (const CScanResult& scan : result.scan.results) {
    for (const scopeinfo::CScopeInfoPtr& info : scan.infos) {
      if (info->loc != result.job.loc &&
          std::find(others.begin(), others.end(), info->loc) == others.end()) {
        others.push_back(info->loc);
      }
    }
  }
  return others;
}

// Written at once, one transaction a file, with what the file says of others, so that none ever
// claims to be scanned and lacks a record. What is written can be trimmed, and the cache trims only
// when nothing waits to be written: so a long run stays small, and a kill loses the file in hand at
// most.
void CScanRunner::Write(Loc loc, const std::vector<Loc>& others, bool whole_file) {
  for (const Loc other : others) {
    if (!IsClaimedDone(other)) {
      _fStoredBeforeScan.insert(other);
    }
  }
  _fCache.WriteToDatabase(others);
  // If the database refused one of them, or the file that it is for is gone by now, the file is
  // stored without the claim: whoever finds that it is back, or that it is gone, scans again.
  const bool is_complete = std::none_of(others.begin(), others.end(), [this](Loc other) {
    return _fCache.GetDiskModTimeUsed(other, false) != scopeinfo::kFileModifiedInMemoryMtime &&
           _fCache.GetUnwrittenCount(other) != 0;
  });
  if (whole_file) {
    for (const CScanRow& scan : kScans) {
      if (is_complete) {
        // Only now: the primary scan is claimed done after its module scope is there.
        _fCache.ChangeScansDone(loc, scan.name, true);
      }
      _fCache.FinishedWithScans(loc, kWildcardScope, scan.name);
    }
  }
  _fCache.WriteToDatabase({loc});
  // Rows that others had stored for the file when nothing else was: the cache counts a file's
  // scopes by the records of its own scan, so if it gave such a row up meanwhile it did not read it
  // again, and takes what it has for all. Now the database has all; the next reader gets it from
  // there.
  if (whole_file && is_complete && _fStoredBeforeScan.contains(loc) &&
      _fCache.GetUnwrittenCount(loc) == 0) {
    _fStoredBeforeScan.erase(loc);
    if (_fCache.GetDiskModTimeUsed(loc, false) != scopeinfo::kFileModifiedInMemoryMtime) {
      _fCache.ClearFiles({loc}, false);
    }
  }
}

// Tells that what this file says of others has changed. The cache does so for records that differ
// from those it knows; but a record that an earlier content of the file had withdrawn is withdrawn
// in memory alone. When the old content comes back (a buffer is closed unsaved, a file restored)
// its row counts again, and the record is found unchanged, though no merged record has it.
void CScanRunner::TellOtherFiles(const CScanJobResult& result) {
  CChangedDict changed;
  for (const CScanResult& scan : result.scan.results) {
    for (const scopeinfo::CScopeInfoPtr& info : scan.infos) {
      if (info->loc != result.job.loc) {
        scopeinfo::AddToChangedDict(changed, info->loc, info->for_scope);
      }
    }
  }
  if (!changed.empty()) {
    _fCache.emit(kScopesModified, changed);
  }
}

// Marks what is known of scans that the file has no more, so that FinishedWithScans removes it. The
// cache has mostly done so itself, when it was told that the file had changed; but a file that left
// the cache meanwhile is not watched, and what it said of other files stayed.
void CScanRunner::ForgetScopesThatAreGone(const CScanJobResult& result) {
  std::set<std::pair<TextView, TextView>> scans;
  for (const CScanResult& scan : result.scan.results) {
    scans.emplace(scan.scanned_scope, scan.scan_name);
  }
  for (const scopeinfo::CScopeInfoKey& key : _fCache.GetKeysScannedFrom(result.job.loc)) {
    if (!scans.contains({key.scanned_scope().value_or(""), key.scan_name().value_or("")})) {
      _fCache.MarkStale(key);
    }
  }
}

// Hands over what is wanted of the result: classes last, and the scans by rank. What a method sets
// on its instance is information for its class, which the class's own record has seen; and scans
// rest on those of a lower rank (scans.h). In any other order a record would make one stale
// that was handed over a moment before.
void CScanRunner::AddWanted(const CScanJobResult& result, const Wanted& wanted) {
  const Loc loc = result.job.loc;
  const auto add = [&](bool of_classes, const CScanRow& row) {
    bool is_class = false;
    for (const CScanResult& scan : result.scan.results) {
      if (scan.scan_name == kPrimaryScan.name) {
        is_class = !scan.infos.empty() && scan.infos.front()->scope_kind == kClassKind;
      }
      if (is_class != of_classes || scan.scan_name != row.name ||
          (!wanted.all && !wanted.scans.contains({scan.scanned_scope, scan.scan_name}))) {
        continue;
      }
      AssertRestsOnOthers(row, loc, scan);
      _fCounts.records += scan.infos.size();
      _fCache.AddScopeInfoListForSingleScan(loc, scan.scanned_scope, scan.scan_name, scan.infos);
    }
  };
  for (const bool of_classes : {false, true}) {
    for (const CScanRow* const row : kScansByRank) {
      add(of_classes, *row);
    }
  }
  for (const auto& [scope, scan_name] : wanted.scans) {
    _fCache.FinishedWithScans(loc, scope, scan_name);
  }
}

}  // namespace pysource::standalone
