// Where the database is, and opening it.
#pragma once

#include <memory>
#include <string>

#include "pysource/host/location.h"
#include "pysource/standalone/sqlitedb/sqliteanalysisdb.h"

namespace pysource::tools {

struct CDatabaseOptions {
  std::string path;       // empty: DefaultDatabasePath()
  std::string workspace;  // files below it are stored relative to it; empty: none
};

// $XDG_CACHE_HOME/scopeinfo/index.db, or the same below ~/.cache. Throws CValueError when the
// environment names neither.
std::string DefaultDatabasePath();

// Where the options say it is; the folder is made if need be, and then marks itself as a cache.
std::string PrepareDatabasePath(const CDatabaseOptions& options);

// Opens the database for commands that only look: null when there is no such file. What it has to
// say (that it set a damaged file aside) goes to the standard error.
std::unique_ptr<standalone::CSqliteAnalysisDb> OpenExistingDatabase(const CDatabaseOptions& options,
                                                                    CLocationCache& loc_cache);
bool DatabaseExists(const CDatabaseOptions& options);

// How long an operation waits for other processes. Nobody waits at a keyboard here, and a save that
// is refused fails the run: better to wait until another process is through.
inline constexpr int kLockWaitMs = 10000;
// What is saved behind an answer, or at the end, waits this long altogether: what is not saved is
// scanned again.
inline constexpr int kLastSavesWaitMs = 1000;

}  // namespace pysource::tools
