// The most frequent operations of the cache, measured one by one.
//
//   Encode            encodes a record
//   Decode            decodes a record
//   AskHot, AskZipf   read a scope whose merged record is in memory, one of 20,000
//   Merge             reads a scope whose records are in memory as bytes
//   FirstRead         reads all scopes of a file that is only in the database
//   Add               adds the records of a file, as a scan makes them
//   Write             writes the records of a file to the database
//   Trim              trims somewhat more than 20,000 scopes to three quarters
//   Refill            reads everything that was trimmed from the database again
#include <benchmark/benchmark.h>

#include <optional>

#include "bench/support/corpus.h"
#include "bench/support/world.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"

namespace pysource::bench {
namespace {

// Made on first use and shared: scanning takes longer than most of the measured operations.
struct CInput {
  CBenchWorld world;
  CCorpus corpus = ScanCorpus(world, CorpusRoot());
  std::string db_path = world.fFolder.PathOf("all.db");  // with all of it stored
  std::vector<CRequest> requests = AllScopes(corpus);

  CInput() {
    EncodeAll(corpus);
    world.Open(db_path);
    AddCorpus(world.Cache(), corpus);
    world.Cache().WriteToDatabase();
  }
  void AskAll() {
    for (const CRequest& request : requests) {
      benchmark::DoNotOptimize(world.Cache().GetScopeInfo(request.loc, request.scope));
    }
  }
};

CInput& Input() {
  static CInput input;
  return input;
}

void CountItems(benchmark::State& state, size_t items) {
  state.SetItemsProcessed(static_cast<int64_t>(items) * static_cast<int64_t>(state.iterations()));
}

void Encode(benchmark::State& state) {
  const auto records = Input().corpus.Records();
  scopeinfo::CScopeInfoSerializer serializer;
  for (auto unused : state) {
    for (const scopeinfo::CScopeInfoPtr& record : records) {
      benchmark::DoNotOptimize(serializer.WriteScopeInfo(*record));
    }
  }
  CountItems(state, records.size());
}
BENCHMARK(Encode)->Unit(benchmark::kMillisecond);

void Decode(benchmark::State& state) {
  const auto records = Input().corpus.Records();
  scopeinfo::CScopeInfoSerializer serializer;
  for (auto unused : state) {
    for (const scopeinfo::CScopeInfoPtr& record : records) {
      benchmark::DoNotOptimize(serializer.ReadScopeInfo(record->key, record->disk_mtime, false,
                                                        *record->_serialized_data));
    }
  }
  CountItems(state, records.size());
}
BENCHMARK(Decode)->Unit(benchmark::kMillisecond);

void Ask(benchmark::State& state, const std::vector<size_t>& draws) {
  CInput& input = Input();
  input.world.Open(input.db_path);
  input.AskAll();
  for (auto unused : state) {
    for (const size_t draw : draws) {
      const CRequest& request = input.requests[draw];
      benchmark::DoNotOptimize(input.world.Cache().GetScopeInfo(request.loc, request.scope));
    }
  }
  CountItems(state, draws.size());
}
void AskHot(benchmark::State& state) { Ask(state, HotDraws(Input().requests.size(), 65536)); }
BENCHMARK(AskHot)->Unit(benchmark::kMillisecond);
void AskZipf(benchmark::State& state) { Ask(state, ZipfDraws(Input().requests.size(), 65536)); }
BENCHMARK(AskZipf)->Unit(benchmark::kMillisecond);

// Uses files that are read whole when their module is requested.
void Merge(benchmark::State& state) {
  CInput& input = Input();
  size_t merged = 0;
  for (auto unused : state) {
    state.PauseTiming();
    input.world.Open(input.db_path);
    std::vector<CRequest> to_merge;
    for (const CCorpusFile& file : input.corpus.files) {
      if (file.scope_names.size() < 50) {
        (void)input.world.Cache().GetScopeInfo(file.loc, kModuleScopeName);
        for (size_t i = 1; i < file.scope_names.size(); ++i) {
          to_merge.push_back({file.loc, file.scope_names[i]});
        }
      }
    }
    state.ResumeTiming();
    for (const CRequest& request : to_merge) {
      benchmark::DoNotOptimize(input.world.Cache().GetScopeInfo(request.loc, request.scope));
    }
    merged = to_merge.size();
  }
  CountItems(state, merged);
}
BENCHMARK(Merge)->Unit(benchmark::kMillisecond);

void FirstRead(benchmark::State& state) {
  CInput& input = Input();
  for (auto unused : state) {
    state.PauseTiming();
    input.world.Open(input.db_path);
    state.ResumeTiming();
    input.AskAll();
  }
  CountItems(state, input.requests.size());
}
BENCHMARK(FirstRead)->Unit(benchmark::kMillisecond);

void Add(benchmark::State& state) {
  CInput& input = Input();
  for (auto unused : state) {
    state.PauseTiming();
    input.world.Open(input.world.fFolder.NewPath());
    state.ResumeTiming();
    AddCorpus(input.world.Cache(), input.corpus);
  }
  CountItems(state, input.corpus.Records().size());
}
BENCHMARK(Add)->Unit(benchmark::kMillisecond);

void Write(benchmark::State& state) {
  CInput& input = Input();
  for (auto unused : state) {
    state.PauseTiming();
    input.world.Open(input.world.fFolder.NewPath());
    AddCorpus(input.world.Cache(), input.corpus);
    state.ResumeTiming();
    input.world.Cache().WriteToDatabase();
  }
  CountItems(state, input.corpus.Records().size());
}
BENCHMARK(Write)->Unit(benchmark::kMillisecond);

// A second set of files makes the number of scopes in memory exceed the limit; the idle call trims.
struct COverfull {
  CInput& input = Input();
  CCorpus more;
  COverfull() : more(ScanMore()) { EncodeAll(more); }
  // The same files in the same order, followed by some more.
  CCorpus ScanMore() {
    CCorpus all = ScanCorpus(input.world, CorpusRoot(), kScopesHeld + 3000);
    for (const CCorpusFile& known : input.corpus.files) {
      std::erase_if(all.files, [&](const CCorpusFile& file) { return file.loc == known.loc; });
    }
    return all;
  }
  void Fill() {
    input.world.Open(input.db_path);
    AddCorpus(input.world.Cache(), more);
    input.world.Cache().WriteToDatabase();
    AddCorpus(input.world.Cache(), input.corpus);
    input.world.Cache().WriteToDatabase();
  }
};

COverfull& Overfull() {
  static COverfull overfull;
  return overfull;
}

void Trim(benchmark::State& state) {
  COverfull& overfull = Overfull();
  size_t trimmed = 0;
  for (auto unused : state) {
    state.PauseTiming();
    overfull.Fill();
    const size_t before = overfull.input.world.Cache().UsedScopeCount();
    state.ResumeTiming();
    overfull.input.world.fLoop.RunIdle();
    trimmed = before - overfull.input.world.Cache().UsedScopeCount();
  }
  if (trimmed == 0) {
    state.SkipWithError("nothing was trimmed");
  }
  CountItems(state, trimmed);
}
BENCHMARK(Trim)->Unit(benchmark::kMillisecond);

// Reads every scope that is not in memory, as long as the cache has room for it without a trim.
void Refill(benchmark::State& state) {
  COverfull& overfull = Overfull();
  scopeinfo::CInfoCache* cache = nullptr;
  size_t refilled = 0;
  for (auto unused : state) {
    state.PauseTiming();
    overfull.Fill();
    overfull.input.world.fLoop.RunIdle();
    cache = &overfull.input.world.Cache();
    std::vector<CRequest> gone;
    const size_t room = kScopesHeld - cache->UsedScopeCount();
    for (const CRequest& request : overfull.input.requests) {
      if (gone.size() + 200 < room && cache->GetRecordsHeld(request.loc, request.scope).empty()) {
        gone.push_back(request);
      }
    }
    state.ResumeTiming();
    for (const CRequest& request : gone) {
      benchmark::DoNotOptimize(cache->GetScopeInfo(request.loc, request.scope));
    }
    refilled = gone.size();
  }
  if (refilled == 0) {
    state.SkipWithError("nothing was gone");
  }
  CountItems(state, refilled);
}
BENCHMARK(Refill)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace pysource::bench
