// The input of benchmarks: the real source files of a tree, by default this machine's Python
// standard library, and what the scanner finds in them.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "bench/support/world.h"
#include "pysource/standalone/engine/findfiles.h"
#include "pysource/standalone/scanner/scanner.h"

namespace pysource::bench {

// The number of scopes that a cache holds by default.
inline constexpr size_t kScopesHeld = 20000;

// A file and the result of its scan.
struct CCorpusFile {
  Loc loc;
  DiskTime disk_mtime = 0;
  size_t source_bytes = 0;
  standalone::CFileScan scan;
  std::vector<Text> scope_names;  // the module first
};

// The files, and the number of their scopes.
struct CCorpus {
  std::vector<CCorpusFile> files;
  size_t scopes = 0;

  // All records, file by file.
  std::vector<scopeinfo::CScopeInfoPtr> Records() const;
};

// $SCOPEINFO_BENCH_ROOT, or this machine's Python standard library. Throws CValueError if there is
// neither.
std::string CorpusRoot();

// The files below `root`, shuffled, in the same order each time.
std::vector<standalone::CFoundFile> MixedFiles(CBenchWorld& world, const std::string& root);

// Scans files in that order up to `most_scopes` scopes; leaves out files that would exceed them.
CCorpus ScanCorpus(CBenchWorld& world, const std::string& root, size_t most_scopes = kScopesHeld);

// Adds the records of a file to the cache in the engine's order: classes last, names before
// attributes.
void AddRecords(scopeinfo::CInfoCache& cache, const CCorpusFile& file);
// Adds all records and notes the scans as done. Records of one file for another make records of the
// other file stale; those are added again, as by a second scan.
void AddCorpus(scopeinfo::CInfoCache& cache, const CCorpus& corpus);

// Gives each record its encoded form, as after a scan in a worker thread.
void EncodeAll(const CCorpus& corpus);
// Removes the encoded form of each record.
void ForgetEncoded(const CCorpus& corpus);

// A scope to read.
struct CRequest {
  Loc loc;
  Text scope;
};
std::vector<CRequest> AllScopes(const CCorpus& corpus);
// `count` random numbers from [0, size): the k-th number of a shuffled order has a probability
// proportional to 1/k.
std::vector<size_t> ZipfDraws(size_t size, size_t count);
// `count` random numbers from only 16 of those in [0, size).
std::vector<size_t> HotDraws(size_t size, size_t count);

}  // namespace pysource::bench
