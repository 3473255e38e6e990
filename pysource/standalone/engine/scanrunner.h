// Runs the scans that the info cache and its readers ask for, and hands the results back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "pysource/host/analysismgr.h"
#include "pysource/host/destroyable.h"
#include "pysource/host/location.h"
#include "pysource/scopeinfo/infocache/infocache.h"
#include "pysource/standalone/engine/scanworkers.h"
#include "pysource/standalone/files/disktimes.h"
#include "pysource/standalone/files/filemanager.h"
#include "pysource/standalone/files/openbuffers.h"
#include "pysource/standalone/sqlitedb/sqliteanalysisdb.h"

namespace pysource::standalone {

// A request names a scope of a file, or all of it, and a scan. One parse gives both scans of all
// scopes, so requests for one file are run together; what was not asked for is not handed over. The
// life of a file here:
//
//   (idle) ── request ──▶ wanted ── job given ──▶ in hand ── result ──▶ handed over, or dropped
//     ▲                     ▲                        │                  because the file has
//     │                     └── asked for again ─────┘                  changed meanwhile
//     │                                                                           │
//     └───────────────────────────────────────────────────────────────────────────┘
//
// What the cache reports as stale (needs-scan-added) is always run. What a reader asks for is run
// once as long as nothing has changed since: a scope that does not exist is asked for at every
// read, and no scan will bring it. A scan that fails is reported once for each content of its file
// and is not tried again until the content changes.
//
// Main thread; the workers are its own.
class CScanRunner final : public CDestroyable {
 public:
  struct Failure {
    Loc loc;
    std::string message;
    // The scan was made, but the cache or its database did not take it in.
    bool was_scanned = false;
  };
  struct Options {
    size_t threads = 1;                        // 0 to scan on the main thread; see scanworkers.h
    size_t max_file_bytes = kDefaultMaxBytes;  // larger files fail to be scanned
    // Called from a worker thread when a result waits; must do no more than wake the main thread,
    // which then calls HandOverReady.
    std::function<void()> notify;
  };
  // What was done so far.
  struct Counts {
    size_t files_scanned = 0;
    size_t source_bytes = 0;
    size_t records = 0;
    size_t encoded_bytes = 0;
    size_t syntax_errors = 0;
    size_t files_with_syntax_errors = 0;
    size_t dropped = 0;            // results that came too late for their content
    double hand_over_seconds = 0;  // in the cache and its database
  };

  // `db` is the database of the cache.
  CScanRunner(scopeinfo::CInfoCache& cache, CSqliteAnalysisDb& db, CFileManager& files,
              CDiskTimes& times, COpenBuffers& buffers, const CImportResolver& resolver,
              Options options);
  ~CScanRunner() override;

  // Asks for scans of the whole file.
  void RequestFile(Loc loc, Priority priority = {});
  // The same, but only when all other scans are through: of a file that rests on others which are
  // about to be scanned, and may make some of its scans stale. So it is scanned once.
  void RequestFileLast(Loc loc);
  // What a read asked for.
  void RequestForReader(const scopeinfo::CNeedsScanDict& needs_scan_dict);

  // Takes in the results that are ready, `most` at most; returns how many. With `wait_ms` it waits
  // so long for a first.
  size_t HandOverReady(unsigned wait_ms = 0, size_t most = SIZE_MAX);
  // With no threads: runs one scan, whose result then waits to be handed over; false when none is
  // to be run.
  bool RunOneJob() { return _fWorkers.RunOneJob(); }
  // True while anything is wanted or in hand.
  bool IsBusy() const { return !_fWanted.empty() || _fInHand != 0; }

  const Counts& GetCounts() const { return _fCounts; }
  CScanWorkTimes WorkTimes() const { return _fWorkers.Times(); }
  // Called with each failure, as it happens.
  std::function<void(const Failure&)> fOnFailure;
  // Called with each result that has been handed over and written.
  std::function<void(const CScanJobResult&)> fOnScanned;

 private:
  // Which scans of a file are wanted. An empty set with `all` is everything.
  struct Wanted {
    bool all = false;
    std::set<std::pair<Text, Text>> scans;  // (scope, scan name)
    int urgency = 0;
    bool is_last = false;  // waits until nothing else is wanted or in hand
  };
  struct FileState {
    bool in_hand = false;
    Wanted running;  // what the job in hand is for
    // The content and the state of the world for which reader's requests were last run, and which.
    uint64_t content = 0;
    uint64_t world = 0;
    Wanted ran;
    // The look of the file whose scan failed; 0 for none.
    uint64_t failed_look = 0;
  };

  void CB_NeedsScanAdded(const CNeedsScanSet& needs_scan, Priority priority);
  void CB_ScopesChanged(const CPySourceAnalysis& ana, const TextSet& scopes);
  void Want(Loc loc, TextView scope, TextView scan_name, int urgency);
  void Dispatch();
  bool IsOnlyLastWanted() const;
  void GiveJob(Loc loc, Wanted wanted);
  void HandOver(const CScanJobResult& result);
  void Fail(uint64_t look, const Failure& failure);
  void AddResults(const CScanJobResult& result, const Wanted& wanted,
                  const std::vector<Loc>& others);
  static std::vector<Loc> OthersOf(const CScanJobResult& result);
  void Write(Loc loc, const std::vector<Loc>& others, bool whole_file);
  void AddWanted(const CScanJobResult& result, const Wanted& wanted);
  bool IsClaimedDone(Loc loc) const;
  void TellOtherFiles(const CScanJobResult& result);
  void ForgetScopesThatAreGone(const CScanJobResult& result);
  void WithdrawClaim(const CNeedsScan& scan);
  // Tells the contents of a file apart; never 0. Of a file that was not read yet it costs reading
  // it.
  uint64_t ContentOf(Loc loc) const;
  // The same by what the file system says alone: the number changes with the content, and at times
  // without it.
  uint64_t LookOf(Loc loc) const;
  bool IsModified(Loc loc) const;

  scopeinfo::CInfoCache& _fCache;
  CSqliteAnalysisDb& _fDb;
  CFileManager& _fFiles;
  CDiskTimes& _fTimes;
  COpenBuffers& _fBuffers;
  std::unordered_map<Loc, FileState> _fStates;
  // What is to be run and not in hand yet.
  std::unordered_map<Loc, Wanted> _fWanted;
  size_t _fInHand = 0;
  // Files for which others had something stored before they were scanned.
  std::unordered_set<Loc> _fStoredBeforeScan;
  // Grows whenever something changes that could make a repeated scan worth while.
  uint64_t _fWorld = 1;
  Counts _fCounts;
  CScanWorkers _fWorkers;  // last: its threads end first
};

}  // namespace pysource::standalone
