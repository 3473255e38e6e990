// AddScopeInfoListForSingleScan, compared with encoding the same records.
//
//   add           adds records that are not encoded yet: adding encodes them
//   add-encoded   adds records that are already encoded, as the engine's workers return them; the
//                 peer is the same
//
// Each round has a new cache and a new database, which is queried once for each file.
#include <vector>

#include "bench/pairs/pair.h"
#include "bench/support/clock.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"

namespace pysource::bench {

void MeasureAdd(CBenchWorld& world, const CCorpus& corpus) {
  const std::vector<scopeinfo::CScopeInfoPtr> records = corpus.Records();
  scopeinfo::CScopeInfoSerializer serializer;
  size_t sum = 0;
  const auto encode = [&] {
    return TimeOf([&] {
      for (const scopeinfo::CScopeInfoPtr& record : records) {
        sum += serializer.WriteScopeInfo(*record).size();
      }
    });
  };
  const auto add = [&] {
    return TimeOf([&] {
      for (const CCorpusFile& file : corpus.files) {
        AddRecords(world.Cache(), file);
      }
    });
  };
  PrintPair("add",
            InTurn(
                [&] {
                  ForgetEncoded(corpus);
                  world.Open(world.fFolder.NewPath());
                  return add();
                },
                encode),
            records.size(), "ns");
  PrintPair("add-encoded",
            InTurn(
                [&] {
                  EncodeAll(corpus);
                  world.Open(world.fFolder.NewPath());
                  return add();
                },
                encode),
            records.size(), "ns", sum == 0 ? "nothing" : "");
}

}  // namespace pysource::bench
