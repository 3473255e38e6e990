// GetScopeInfo for scopes that were not merged yet and whose records are in memory as bytes,
// compared with only decoding these records.
//
// The scopes are those of files that are read whole when their module is requested, without the
// modules themselves. Both sides decode the records of all scans.
#include <vector>

#include "bench/pairs/pair.h"
#include "bench/support/clock.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"

namespace pysource::bench {
namespace {

struct CEncodedRecord {
  scopeinfo::CScopeInfoKey key;
  DiskTime disk_mtime;
  Bytes data;
};

}  // namespace

void MeasureMerge(CBenchWorld& world, const CCorpus& corpus) {
  const std::string db_path = world.fFolder.NewPath();
  world.Open(db_path);
  AddCorpus(world.Cache(), corpus);
  world.Cache().WriteToDatabase();

  std::vector<CRequest> requests;
  std::vector<CEncodedRecord> records;
  for (const CCorpusFile& file : corpus.files) {
    if (file.scope_names.size() >= 40) {
      continue;
    }
    for (size_t i = 1; i < file.scope_names.size(); ++i) {
      requests.push_back({file.loc, file.scope_names[i]});
    }
    for (const CDatabaseRecord& row : world.Db().ReadScopeDataRecords(
             file.loc, world.Cache().fScanNames, {Text(kWildcardScope)}, file.disk_mtime)) {
      if (row.for_scope != kModuleScopeName) {
        records.push_back({scopeinfo::CScopeInfoKey(row.for_loc, row.for_scope, row.scan_name,
                                                    row.scanned_loc, row.scanned_scope),
                           file.disk_mtime, row.data});
      }
    }
  }

  scopeinfo::CScopeInfoSerializer serializer;
  size_t found = 0;
  const CPairTimes times = InTurn(
      [&] {
        world.Open(db_path);
        for (const CCorpusFile& file : corpus.files) {
          if (file.scope_names.size() < 40) {
            (void)world.Cache().GetScopeInfo(file.loc, kModuleScopeName);
          }
        }
        const size_t merged_before = world.Cache().MergedInfoCount();
        const double seconds = TimeOf([&] {
          for (const CRequest& request : requests) {
            found += world.Cache().GetScopeInfo(request.loc, request.scope) != nullptr;
          }
        });
        if (world.Cache().MergedInfoCount() != merged_before + requests.size()) {
          throw std::logic_error("not every scope was merged");
        }
        return seconds;
      },
      [&] {
        return TimeOf([&] {
          for (const CEncodedRecord& record : records) {
            found += serializer.ReadScopeInfo(record.key, record.disk_mtime, false, record.data) !=
                     nullptr;
          }
        });
      });
  PrintPair("merge", times, requests.size(), "ns",
            std::to_string(requests.size()) + " scopes of " + std::to_string(records.size()) +
                " records" + (found == 0 ? ", nothing found" : ""));
}

}  // namespace pysource::bench
