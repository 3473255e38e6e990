// The memory for scopes in the cache, compared with four std::unordered_map<std::string,
// std::string> for each of their records and nothing else.
//
// Counts the memory that malloc has allocated, with its overhead and without that of SQLite. The
// project's figure is the growth when the cache was filled: records, keys, all indexes, the entries
// of files.
//
//   memory-bytes   scopes that were read together with their module, still as bytes
//   memory         20,000 scopes, each of which was requested, and so decoded and merged
//   memory-added   20,000 scopes, each scanned in this process and written, none requested
#include <malloc.h>
#include <sqlite3.h>

#include <array>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/pairs/pair.h"
#include "pysource/host/symbolinfo/scopenames.h"

namespace pysource::bench {
namespace {

constexpr double kMiB = 1 << 20;

double HeldMiB() {
  const auto of_malloc = static_cast<double>(mallinfo2().uordblks + mallinfo2().hblkhd);
  return (of_malloc - static_cast<double>(sqlite3_memory_used())) / kMiB;
}

using CPlainMap = std::unordered_map<std::string, std::string>;
using CPlainRecord = std::array<CPlainMap, 4>;

CPlainMap PlainMapOf(const CStrDict* dict) {
  CPlainMap map;
  if (dict != nullptr) {
    for (const auto& [name, ibytes] : *dict) {
      map.emplace(name, ibytes);
    }
  }
  return map;
}

const CStrDict* OrNull(const std::optional<CStrDict>& dict) { return dict ? &*dict : nullptr; }

double PlainMiB(const std::vector<scopeinfo::CScopeInfoPtr>& records) {
  const double before = HeldMiB();
  std::vector<CPlainRecord> plain;
  plain.reserve(records.size());
  for (const scopeinfo::CScopeInfoPtr& info : records) {
    plain.push_back({PlainMapOf(&info->type_equivs), PlainMapOf(OrNull(info->_domains)),
                     PlainMapOf(OrNull(info->inst_type_equivs)),
                     PlainMapOf(OrNull(info->_inst_domains))});
  }
  return HeldMiB() - before;
}

// The files that are read whole when their module is requested.
CCorpus SmallFiles(const CCorpus& corpus) {
  CCorpus small;
  for (const CCorpusFile& file : corpus.files) {
    if (file.scope_names.size() >= 20 && file.scope_names.size() < 40) {
      small.scopes += file.scope_names.size();
      small.files.push_back(file);
    }
  }
  return small;
}

}  // namespace

void MeasureMemory(CBenchWorld& world, const CCorpus& corpus) {
  const std::string db_path = world.fFolder.NewPath();
  world.Open(db_path);
  const double before_add = HeldMiB();
  {
    // Scanned again, so that the cache alone decides which records stay in memory.
    const CCorpus own = ScanCorpus(world, CorpusRoot());
    EncodeAll(own);
    AddCorpus(world.Cache(), own);
  }
  world.Cache().WriteToDatabase();
  const double added = HeldMiB() - before_add;

  const CCorpus small = SmallFiles(corpus);
  world.Open(db_path);
  const double before_small = HeldMiB();
  for (const CCorpusFile& file : small.files) {
    (void)world.Cache().GetScopeInfo(file.loc, kModuleScopeName);
  }
  const double of_small = HeldMiB() - before_small;
  const std::string small_note = std::to_string(world.Cache().UsedScopeCount()) + " scopes, " +
                                 std::to_string(world.Cache().MergedInfoCount()) +
                                 " of them merged";

  world.Open(db_path);
  const double before = HeldMiB();
  for (const CRequest& request : AllScopes(corpus)) {
    (void)world.Cache().GetScopeInfo(request.loc, request.scope);
  }
  const double asked = HeldMiB() - before;
  const std::string note = std::to_string(world.Cache().UsedScopeCount()) + " scopes, " +
                           std::to_string(world.Cache().MergedInfoCount()) + " of them merged";
  world.Close();

  const double peer = PlainMiB(corpus.Records());
  PrintFigures("memory-bytes", of_small, PlainMiB(small.Records()), "MiB", small_note);
  PrintFigures("memory", asked, peer, "MiB", note);
  PrintFigures("memory-added", added, peer, "MiB", "none merged");
}

}  // namespace pysource::bench
