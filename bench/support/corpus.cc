#include "bench/support/corpus.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <numeric>
#include <random>
#include <unordered_map>
#include <utility>

#include "pysource/host/errors.h"
#include "pysource/host/symbolinfo/kinds.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"
#include "pysource/standalone/scanner/sourcefile.h"

namespace pysource::bench {
namespace {

constexpr unsigned kSeed = 20000;

// How often stale records are added again at most; real code takes two rounds.
constexpr int kMostRounds = 4;

// Not std::shuffle, whose result can differ between libraries.
template <class T>
void Mix(std::vector<T>& items, unsigned seed) {
  std::mt19937 random(seed);
  for (size_t i = items.size(); i > 1; --i) {
    std::swap(items[i - 1], items[random() % i]);
  }
}

}  // namespace

std::vector<scopeinfo::CScopeInfoPtr> CCorpus::Records() const {
  std::vector<scopeinfo::CScopeInfoPtr> records;
  for (const CCorpusFile& file : files) {
    for (const standalone::CScanResult& result : file.scan.results) {
      records.insert(records.end(), result.infos.begin(), result.infos.end());
    }
  }
  return records;
}

std::string CorpusRoot() {
  if (const char* const named = std::getenv("SCOPEINFO_BENCH_ROOT")) {
    return named;
  }
  std::string found;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/usr/lib", ignored)) {
    if (std::filesystem::exists(entry.path() / "json" / "decoder.py", ignored)) {
      found = std::max(found, entry.path().string());
    }
  }
  if (found.empty()) {
    throw CValueError("no Python standard library is below /usr/lib; set SCOPEINFO_BENCH_ROOT");
  }
  return found;
}

std::vector<standalone::CFoundFile> MixedFiles(CBenchWorld& world, const std::string& root) {
  std::vector<standalone::CFoundFile> files =
      standalone::FindPythonFiles({root}, world.fLocCache).files;
  Mix(files, kSeed);
  return files;
}

CCorpus ScanCorpus(CBenchWorld& world, const std::string& root, size_t most_scopes) {
  world.fResolver.SetRoots({root});
  standalone::CScanner scanner(world.fResolver);
  CCorpus corpus;
  size_t left_out_in_a_row = 0;
  for (const standalone::CFoundFile& found : MixedFiles(world, root)) {
    CCorpusFile file;
    file.loc = found.loc;
    try {
      const standalone::CSourceFile source = standalone::ReadSourceFile(found.loc);
      file.disk_mtime = source.disk_mtime;
      file.source_bytes = source.source.size();
      file.scan = scanner.Scan(
          {.loc = found.loc, .source = source.source, .disk_mtime = source.disk_mtime});
    } catch (const CValueError&) {
      continue;  // a library has files with errors on purpose
    }
    for (const standalone::CScanResult& result : file.scan.results) {
      if (result.scan_name == standalone::kPrimaryScan.name) {
        file.scope_names.push_back(result.scanned_scope);
      }
    }
    if (corpus.scopes + file.scope_names.size() > most_scopes) {
      if (++left_out_in_a_row == 20) {
        break;
      }
      continue;
    }
    left_out_in_a_row = 0;
    corpus.scopes += file.scope_names.size();
    corpus.files.push_back(std::move(file));
  }
  return corpus;
}

void AddRecords(scopeinfo::CInfoCache& cache, const CCorpusFile& file) {
  const auto add = [&](bool of_classes, TextView scan_name) {
    bool is_class = false;
    for (const standalone::CScanResult& scan : file.scan.results) {
      if (scan.scan_name == standalone::kPrimaryScan.name) {
        is_class = !scan.infos.empty() && scan.infos.front()->scope_kind == kClassKind;
      }
      if (is_class == of_classes && scan.scan_name == scan_name) {
        cache.AddScopeInfoListForSingleScan(file.loc, scan.scanned_scope, scan_name, scan.infos);
      }
    }
  };
  for (const bool of_classes : {false, true}) {
    for (const standalone::CScanRow* const row : standalone::kScansByRank) {
      add(of_classes, row->name);
    }
  }
}

void AddCorpus(scopeinfo::CInfoCache& cache, const CCorpus& corpus) {
  CNeedsScanSet stale;
  const auto connection = cache.connect(
      kNeedsScanAdded, [&stale](const CInfoCacheBase&, const CNeedsScanSet& needs_scan, Priority) {
        stale.insert(needs_scan.begin(), needs_scan.end());
      });
  std::unordered_map<Loc, const CCorpusFile*> by_loc;
  for (const CCorpusFile& file : corpus.files) {
    by_loc.emplace(file.loc, &file);
    AddRecords(cache, file);
    for (const standalone::CScanRow& scan : standalone::kScans) {
      cache.ChangeScansDone(file.loc, scan.name, true);
      cache.FinishedWithScans(file.loc, kWildcardScope, scan.name);
    }
  }
  for (int round = 0; round < kMostRounds && !stale.empty(); ++round) {
    for (const CNeedsScan& scan : std::exchange(stale, {})) {
      const auto file = by_loc.find(scan.scanned_loc);
      if (file == by_loc.end()) {
        continue;
      }
      for (const standalone::CScanResult& result : file->second->scan.results) {
        if (result.scanned_scope == scan.scanned_scope && result.scan_name == scan.scan_name) {
          cache.AddScopeInfoListForSingleScan(scan.scanned_loc, scan.scanned_scope, scan.scan_name,
                                              result.infos);
        }
      }
    }
  }
  cache.disconnect(connection);
}

void EncodeAll(const CCorpus& corpus) {
  scopeinfo::CScopeInfoSerializer serializer;
  for (const scopeinfo::CScopeInfoPtr& record : corpus.Records()) {
    record->_serialized_data = serializer.WriteScopeInfo(*record);
  }
}

void ForgetEncoded(const CCorpus& corpus) {
  for (const scopeinfo::CScopeInfoPtr& record : corpus.Records()) {
    record->_serialized_data.reset();
  }
}

std::vector<CRequest> AllScopes(const CCorpus& corpus) {
  std::vector<CRequest> requests;
  for (const CCorpusFile& file : corpus.files) {
    for (const Text& name : file.scope_names) {
      requests.push_back({file.loc, name});
    }
  }
  return requests;
}

std::vector<size_t> ZipfDraws(size_t size, size_t count) {
  std::vector<size_t> order(size);
  std::iota(order.begin(), order.end(), 0);
  Mix(order, kSeed + 1);
  std::vector<double> up_to(size);
  double sum = 0;
  for (size_t rank = 0; rank < size; ++rank) {
    sum += 1.0 / static_cast<double>(rank + 1);
    up_to[rank] = sum;
  }
  std::mt19937 random(kSeed + 2);
  std::vector<size_t> draws;
  for (size_t i = 0; i < count; ++i) {
    const double at = sum * static_cast<double>(random()) / 4294967296.0;
    const auto found = std::upper_bound(up_to.begin(), up_to.end(), at);
    draws.push_back(order[static_cast<size_t>(found - up_to.begin())]);
  }
  return draws;
}

std::vector<size_t> HotDraws(size_t size, size_t count) {
  std::vector<size_t> order(size);
  std::iota(order.begin(), order.end(), 0);
  Mix(order, kSeed + 3);
  std::mt19937 random(kSeed + 4);
  std::vector<size_t> draws;
  for (size_t i = 0; i < count; ++i) {
    draws.push_back(order[random() % std::min<size_t>(16, size)]);
  }
  return draws;
}

}  // namespace pysource::bench
