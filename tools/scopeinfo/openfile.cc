#include "tools/scopeinfo/openfile.h"

#include <fmt/format.h>

#include "tools/scopeinfo/output.h"

namespace pysource::tools {

COpenFile::COpenFile(const COptions& options)
    : db(OpenExistingDatabase(options.database, loc_cache)),
      reader(db.get(), loc_cache),
      source(reader.Open(options.file)) {
  if (source == standalone::CScopeReader::ESource::kScan) {
    Complain(fmt::format("{} is not in the database as it is now; scanned it for this answer",
                         options.file));
  }
}

}  // namespace pysource::tools
