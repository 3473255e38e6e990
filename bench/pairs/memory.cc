// Memory for 20,000 scopes, against four std::unordered_map<std::string, std::string> a record.
//
// What malloc has handed out, overhead included, without what SQLite holds. The project's figure is
// all that a cache has after it was filled: records, keys, every index, entries of files.
//
//   memory         each scope was asked for: read from the database, and merged
//   memory-added   each scope was scanned in this process and written; nothing was asked for
#include <malloc.h>
#include <sqlite3.h>

#include <array>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/pairs/pair.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"

namespace pysource::bench {
namespace {

double HeldBytes() {
  return static_cast<double>(mallinfo2().uordblks + mallinfo2().hblkhd) -
         static_cast<double>(sqlite3_memory_used());
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

CCorpus CopyOf(const CCorpus& corpus) {
  scopeinfo::CScopeInfoSerializer serializer;
  CCorpus copy;
  for (const CCorpusFile& file : corpus.files) {
    CCorpusFile& copied = copy.files.emplace_back();
    copied.loc = file.loc;
    copied.disk_mtime = file.disk_mtime;
    for (const standalone::CScanResult& result : file.scan.results) {
      auto& infos =
          copied.scan.results
              .emplace_back(standalone::CScanResult{result.scanned_scope, result.scan_name, {}})
              .infos;
      for (const scopeinfo::CScopeInfoPtr& info : result.infos) {
        infos.push_back(info->Copy(false, true));
        if (info->scope_seen_dict != nullptr) {
          infos.back()->scope_seen_dict = std::make_shared<CScopesSeenDict>(*info->scope_seen_dict);
        }
        infos.back()->_serialized_data = serializer.WriteScopeInfo(*info);
      }
    }
  }
  return copy;
}

const CStrDict* OrNull(const std::optional<CStrDict>& dict) { return dict ? &*dict : nullptr; }

}  // namespace

void MeasureMemory(CBenchWorld& world, const CCorpus& corpus) {
  const std::string db_path = world.fFolder.NewPath();
  double added = 0;
  {
    // Records of its own, which leave memory as the cache gives them up.
    world.Open(db_path);
    const double before = HeldBytes();
    AddCorpus(world.Cache(), CopyOf(corpus));
    world.Cache().WriteToDatabase();
    added = HeldBytes() - before;
  }

  const double before_peer = HeldBytes();
  std::vector<CPlainRecord> plain;
  plain.reserve(corpus.Records().size());
  for (const scopeinfo::CScopeInfoPtr& info : corpus.Records()) {
    plain.push_back({PlainMapOf(&info->type_equivs), PlainMapOf(OrNull(info->_domains)),
                     PlainMapOf(OrNull(info->inst_type_equivs)),
                     PlainMapOf(OrNull(info->_inst_domains))});
  }
  const double peer = HeldBytes() - before_peer;

  world.Open(db_path);
  const double before = HeldBytes();
  for (const CRequest& request : AllScopes(corpus)) {
    (void)world.Cache().GetScopeInfo(request.loc, request.scope);
  }
  const double asked = HeldBytes() - before;

  const std::string note = std::to_string(world.Cache().UsedScopeCount()) + " scopes, " +
                           std::to_string(world.Cache().MergedInfoCount()) + " of them merged";
  constexpr double kMiB = 1 << 20;
  PrintFigures("memory", asked / kMiB, peer / kMiB, "MiB", note);
  PrintFigures("memory-added", added / kMiB, peer / kMiB, "MiB", "none merged");
}

}  // namespace pysource::bench
