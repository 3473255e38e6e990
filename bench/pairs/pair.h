// A pair: the same work, done by the project and by a peer, alternately, several times.
#pragma once

#include <functional>
#include <string>

#include "bench/support/corpus.h"
#include "bench/support/world.h"

namespace pysource::bench {

// The number of rounds: 7, or $SCOPEINFO_BENCH_ROUNDS, which gives a profiler more to see.
int Rounds();

// The medians of the rounds, in seconds.
struct CPairTimes {
  double project = 0;
  double peer = 0;
};

// Each of the two functions returns the seconds that it took, without its preparations. The first
// round of each is not counted.
CPairTimes InTurn(const std::function<double()>& project, const std::function<double()>& peer,
                  int rounds = Rounds());

// Prints a line of JSON: {"name", "project", "peer", "unit", "note"}. `times` is divided by
// `count` and converted to `unit`: "ns", "us" or "ms".
void PrintPair(const std::string& name, CPairTimes times, size_t count, const std::string& unit,
               const std::string& note = {});
// The same for two figures, which are printed unchanged.
void PrintFigures(const std::string& name, double project, double peer, const std::string& unit,
                  const std::string& note = {});

// The number of allocations with operator new since the process started.
size_t AllocationCount();

// Each pair has its own file, which says what is measured.
void MeasureEncode(CBenchWorld& world, const CCorpus& corpus);
void MeasureDecode(CBenchWorld& world, const CCorpus& corpus);
void MeasureAsk(CBenchWorld& world, const CCorpus& corpus);
void MeasureMerge(CBenchWorld& world, const CCorpus& corpus);
void MeasureFirstRead(CBenchWorld& world, const CCorpus& corpus);
void MeasureWrite(CBenchWorld& world, const CCorpus& corpus);
void MeasureAdd(CBenchWorld& world, const CCorpus& corpus);
void MeasureMemory(CBenchWorld& world, const CCorpus& corpus);
void MeasureEdit(CBenchWorld& world, const CCorpus& corpus);
void MeasureStages(CBenchWorld& world, const CCorpus& corpus);
// Not a pair but one half of one: the cost of a hit and of a first read in a tree that is indexed
// in that database.
void MeasureTree(CBenchWorld& world, const std::string& root, const std::string& db_path);

}  // namespace pysource::bench
