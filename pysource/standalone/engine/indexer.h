// Bringing the analysis database up to date with a tree of files, through the info cache.
//
// Asks the engine for the scans of what is new or changed, and leaves the rest to it: each file is
// handed to the cache and written as soon as it is scanned. What was stored stays when a run is cut
// short, by a cancel, a kill or a full disk: the next run goes on from there.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/standalone/engine/engine.h"
#include "pysource/standalone/engine/findfiles.h"
#include "pysource/standalone/engine/indexplan.h"
#include "pysource/standalone/engine/scanrunner.h"
#include "pysource/standalone/engine/scanworkers.h"

namespace pysource::standalone {

struct CIndexRequest {
  const CFoundFiles& found;
  // Called before the first scan, and after each file.
  std::function<void(size_t done, size_t total, const std::string& path)> on_progress;
  // Called after each piece of work, for the idle calls of the main loop; false gives up.
  std::function<bool()> between;
};

// Places in a file that the parser could not make sense of.
struct CSyntaxErrors {
  std::string path;
  size_t count = 0;
  size_t first_line = 0;
};

struct CIndexReport {
  size_t scanned = 0;        // files that were scanned and stored
  size_t scanned_again = 0;  // of these: unchanged, but resting on files that are not
  size_t unchanged = 0;
  size_t removed = 0;
  bool cancelled = false;

  size_t scopes = 0;
  size_t names = 0;  // names of the scopes, and attributes of instances
  size_t records = 0;
  size_t source_bytes = 0;
  size_t encoded_bytes = 0;

  std::vector<CPathNote> unreadable;         // files that could not be read or decoded
  std::vector<CSyntaxErrors> syntax_errors;  // files that were understood in part
  std::vector<CPathNote> not_stored;         // files whose save or clear the database refused

  double plan_seconds = 0;   // comparing with the database
  double scan_seconds = 0;   // from the first scan to the last save, scanning and storing together
  double store_seconds = 0;  // of that: in the cache and its database
  CScanWorkTimes worker_times;  // processor time
};

// Forgets what the plan says is no longer true, in such an order that a run that is cut short
// anywhere is made up for by the next one. Returns what the database refused. The scans themselves
// are for the caller to ask for.
std::vector<CPathNote> ForgetForPlan(CEngine& engine, const CIndexPlan& plan);

// For a process that indexes and ends: nobody reads from the cache meanwhile, so a file leaves
// memory as soon as it is written and no scan of it is wanted again, and memory stays small
// whatever the size of the tree.
class CIndexer {
 public:
  // The engine must outlive the indexer, which is the only one to use it while Run goes on.
  explicit CIndexer(CEngine& engine) : _fEngine(engine) {}

  CIndexReport Run(const CIndexRequest& request);

 private:
  void TakeScanned(const CScanJobResult& scanned);
  void TakeFailure(const CScanRunner::Failure& failure);
  void Refuse(const std::string& path, const std::string& why);
  bool IsRefused(Loc loc) const;
  void Sweep();
  void WriteTheRest();
  bool HasGivenUp() const;

  CEngine& _fEngine;

  // Of the run that goes on.
  CIndexReport _fReport;
  std::unordered_set<Loc> _fStored;
  size_t _fDone = 0;
  size_t _fFailuresInARow = 0;
};

}  // namespace pysource::standalone
