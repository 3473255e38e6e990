// usage: make_corpus CORPUS FILE.py...
// Scans the files. Writes the message of each record to CORPUS/record, and that of its scopes seen
// to CORPUS/scopesseen. The hash of a message is its file name, so a message that is already there
// is not written again. Messages that a fuzzer would cut off are left out.

#include <cinttypes>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <string>
#include <unordered_map>

#include "pysource/host/hash.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"
#include "pysource/standalone/scanner/importresolver.h"
#include "pysource/standalone/scanner/scanner.h"
#include "pysource/standalone/scanner/sourcefile.h"

namespace {

using namespace pysource;
using namespace pysource::standalone;

constexpr size_t kLongestMessage = 4096;  // libFuzzer's own limit for inputs

// Writes the message; true if it is new.
bool Write(const std::filesystem::path& folder, const Bytes& message) {
  char name[17];
  std::snprintf(name, sizeof name, "%016" PRIx64, uint64_t{HashBytes(message)});
  if (message.empty() || message.size() > kLongestMessage || exists(folder / name)) {
    return false;
  }
  std::ofstream file(folder / name, std::ios::binary);
  file.exceptions(std::ios::failbit | std::ios::badbit);
  file << message << std::flush;
  return true;
}

size_t MakeCorpus(const std::filesystem::path& corpus, int count, char** paths) {
  create_directories(corpus / "record");
  create_directories(corpus / "scopesseen");
  CLocationCache locations;
  CDiskTimes times;
  const CFileImportResolver resolver(locations, times, {});
  CScanner scanner(resolver);
  scopeinfo::CScopeInfoSerializer serializer;
  // Numbered in the order of first use, as a database would.
  std::unordered_map<Loc, uint64_t> file_ids;
  const auto get_file_id = [&](Loc loc) {
    return std::optional(file_ids.emplace(loc, file_ids.size() + 1).first->second);
  };
  size_t written = 0;
  for (int i = 0; i < count; ++i) {
    const CSourceFile file = ReadSourceFile(std::string(paths[i]));
    const CFileScan scan =
        scanner.Scan({locations.GetLocationForPath(paths[i]), file.source, file.disk_mtime, false});
    for (const CScanResult& result : scan.results) {
      for (const scopeinfo::CScopeInfoPtr& info : result.infos) {
        written += Write(corpus / "record", serializer.WriteScopeInfo(*info)) ? 1 : 0;
        const Bytes seen =
            serializer.SerializeScopesSeenDict(info->scope_seen_dict.get(), get_file_id);
        written += Write(corpus / "scopesseen", seen) ? 1 : 0;
      }
    }
  }
  return written;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: %s CORPUS FILE.py...\n", argv[0]);
    return 2;
  }
  try {
    std::printf("%zu messages written\n", MakeCorpus(argv[1], argc - 2, argv + 2));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", argv[0], error.what());
    return 1;
  }
  return 0;
}
