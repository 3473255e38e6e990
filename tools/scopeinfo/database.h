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

// Opens the database, or makes it. A folder that is made for it marks itself as a cache. What the
// database has to say (that it set a damaged file aside) goes to the standard error.
std::unique_ptr<standalone::CSqliteAnalysisDb> OpenDatabase(const CDatabaseOptions& options,
                                                            CLocationCache& loc_cache);
// The same for commands that only look: null when there is no such file.
std::unique_ptr<standalone::CSqliteAnalysisDb> OpenExistingDatabase(const CDatabaseOptions& options,
                                                                    CLocationCache& loc_cache);

}  // namespace pysource::tools
