#include "tools/scopeinfo/database.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "pysource/host/errors.h"
#include "pysource/standalone/scanner/scanner.h"
#include "pysource/standalone/sqlitedb/opening.h"
#include "tools/scopeinfo/interrupt.h"
#include "tools/scopeinfo/output.h"

namespace pysource::tools {
namespace {

namespace fs = std::filesystem;

std::string PathOf(const CDatabaseOptions& options) {
  return options.path.empty() ? DefaultDatabasePath() : options.path;
}

// Makes the folder, with the mark by which backups know what to leave out. A folder that is there
// already is its owner's business.
void MakeCacheFolder(const fs::path& folder) {
  std::error_code error;
  if (folder.empty() || fs::exists(folder, error) ||
      !standalone::sqlitedb::MakePrivateFolders(folder.string())) {
    return;  // if it is not there now, opening the database says so
  }
  std::ofstream(folder / "CACHEDIR.TAG")
      << "Signature: 8a477f597d28d172789f06886806bc55\n"
         "# Databases of scopeinfo. They can be made again by indexing, so backups need not keep "
         "them.\n";
}

}  // namespace

std::string DefaultDatabasePath() {
  const char* cache = std::getenv("XDG_CACHE_HOME");
  if (cache != nullptr && cache[0] == '/') {  // a relative one does not count, by its own rules
    return std::string(cache) + "/scopeinfo/index.db";
  }
  const char* home = std::getenv("HOME");
  if (home != nullptr && home[0] != '\0') {
    return std::string(home) + "/.cache/scopeinfo/index.db";
  }
  throw CValueError(
      "neither XDG_CACHE_HOME nor HOME says where the database is; name one with --db FILE");
}

std::string PrepareDatabasePath(const CDatabaseOptions& options) {
  std::string path = PathOf(options);
  MakeCacheFolder(fs::path(path).parent_path());
  return path;
}

bool DatabaseExists(const CDatabaseOptions& options) {
  std::error_code error;
  return fs::exists(PathOf(options), error) || error;
}

std::unique_ptr<standalone::CSqliteAnalysisDb> OpenExistingDatabase(const CDatabaseOptions& options,
                                                                    CLocationCache& loc_cache) {
  if (!DatabaseExists(options)) {
    return nullptr;
  }
  auto db = std::make_unique<standalone::CSqliteAnalysisDb>(
      standalone::CSqliteDbOptions{PathOf(options), options.workspace, kLockWaitMs,
                                   standalone::kScannerVersion, IsInterrupted},
      loc_cache);
  Complain(db->Message());
  return db;
}

}  // namespace pysource::tools
