// Bringing the analysis database up to date with a tree of files.
//
// Scans what is new or changed in worker threads and stores it, one save a file, on the calling
// thread. What was stored stays when a run is cut short, by a cancel, a kill or a full disk: the
// next run goes on from there.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/standalone/engine/filerows.h"
#include "pysource/standalone/engine/findfiles.h"
#include "pysource/standalone/engine/indexplan.h"
#include "pysource/standalone/engine/scanworkers.h"
#include "pysource/standalone/sqlitedb/sqliteanalysisdb.h"

namespace pysource::standalone {

struct CIndexRequest {
  const CFoundFiles& found;
  size_t jobs = 1;  // worker threads
  // Called before the first scan, and after each file.
  std::function<void(size_t done, size_t total, const std::string& path)> on_progress;
  // Asked now and then; may be null.
  std::function<bool()> is_cancelled;
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
  size_t names = 0;
  size_t records = 0;
  size_t source_bytes = 0;
  size_t encoded_bytes = 0;

  std::vector<CPathNote> unreadable;         // files that could not be read or decoded
  std::vector<CSyntaxErrors> syntax_errors;  // files that were understood in part
  std::vector<CPathNote> not_stored;         // files whose save or clear the database refused

  double plan_seconds = 0;   // comparing with the database
  double scan_seconds = 0;   // from the first scan to the last save, scanning and storing together
  double store_seconds = 0;  // of that: in saves
  CScanWorkTimes worker_times;  // processor time
};

class CIndexer {
 public:
  // Both must outlive the indexer.
  CIndexer(CSqliteAnalysisDb& db, CLocationCache& loc_cache) : _fDb(db), _fLocCache(loc_cache) {}

  CIndexReport Run(const CIndexRequest& request);

 private:
  void Prepare(const CIndexPlan& plan);
  void StoreFile(const CScanJobResult& scanned);
  void StoreRowsForOthers();
  void Save(Loc loc, const std::vector<CDatabaseRecord>& rows, TextView scans_done,
            DiskTime disk_mtime);
  bool HasGivenUp() const;

  CSqliteAnalysisDb& _fDb;
  CLocationCache& _fLocCache;

  // Of the run that goes on.
  CIndexReport _fReport;
  CRowsByLoc _fForOthers;
  std::unordered_map<Loc, DiskTime> _fStored;  // at which time each file was stored
  size_t _fFailuresInARow = 0;
};

}  // namespace pysource::standalone
