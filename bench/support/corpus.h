// What benchmarks work on: real source of a tree, by default this machine's Python standard
// library, and what the scanner finds in it.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "bench/support/world.h"
#include "pysource/standalone/engine/findfiles.h"
#include "pysource/standalone/scanner/scanner.h"

namespace pysource::bench {

// As many scopes as a cache holds by default.
inline constexpr size_t kScopesHeld = 20000;

struct CCorpusFile {
  Loc loc;
  DiskTime disk_mtime = 0;
  size_t source_bytes = 0;
  standalone::CFileScan scan;
  std::vector<Text> scope_names;  // the module first
};

struct CCorpus {
  std::vector<CCorpusFile> files;
  size_t scopes = 0;

  // All records, file by file.
  std::vector<scopeinfo::CScopeInfoPtr> Records() const;
};

// $SCOPEINFO_BENCH_ROOT, or this machine's Python standard library. Throws CValueError when there
// is neither.
std::string CorpusRoot();

// The files below `root` in an order that mixes them and is the same each time.
std::vector<standalone::CFoundFile> MixedFiles(CBenchWorld& world, const std::string& root);

// Scans files in that order until there are so many scopes, and leaves out what would bring more.
CCorpus ScanCorpus(CBenchWorld& world, const std::string& root, size_t most_scopes = kScopesHeld);

// Hands over the records of a file, in the engine's order: classes last, names before attributes.
void AddRecords(scopeinfo::CInfoCache& cache, const CCorpusFile& file);
// Hands over everything and notes the scans as done. What one file says of another makes records of
// that one stale; they are handed over again, as by a second scan.
void AddCorpus(scopeinfo::CInfoCache& cache, const CCorpus& corpus);

// Sees to it that each record has its encoded form, as after a scan in a worker, or that none has.
void EncodeAll(const CCorpus& corpus);
void ForgetEncoded(const CCorpus& corpus);

// A scope to ask for.
struct CRequest {
  Loc loc;
  Text scope;
};
std::vector<CRequest> AllScopes(const CCorpus& corpus);
// So many draws from [0, size): the k-th of a mixed order with a probability in proportion to 1/k.
std::vector<size_t> ZipfDraws(size_t size, size_t count);
// So many draws from 16 of them.
std::vector<size_t> HotDraws(size_t size, size_t count);

}  // namespace pysource::bench
