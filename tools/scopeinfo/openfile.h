// One file as the commands that tell of files open it: from the database if that holds it as it is
// now, otherwise scanned on the spot, and then they say so.
#pragma once

#include <memory>

#include "pysource/host/location.h"
#include "pysource/standalone/engine/reader.h"
#include "pysource/standalone/sqlitedb/sqliteanalysisdb.h"
#include "tools/scopeinfo/commands.h"

namespace pysource::tools {

struct COpenFile {
  explicit COpenFile(const COptions& options);

  CLocationCache loc_cache;
  std::unique_ptr<standalone::CSqliteAnalysisDb> db;  // null when there is none
  standalone::CScopeReader reader;
  standalone::CScopeReader::ESource source;
};

}  // namespace pysource::tools
