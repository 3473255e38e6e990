// A pair: the same work done by the project and by a peer, in turn, several times.
#pragma once

#include <functional>
#include <string>

#include "bench/support/corpus.h"
#include "bench/support/world.h"

namespace pysource::bench {

// How many rounds: 7, or $SCOPEINFO_BENCH_ROUNDS, for a profiler to see more of the same.
int Rounds();

// Of the rounds, the medians.
struct CPairTimes {
  double project = 0;
  double peer = 0;
};

// Each of the two returns the seconds that it took, without what it does to prepare. The first
// round of each is not counted.
CPairTimes InTurn(const std::function<double()>& project, const std::function<double()>& peer,
                  int rounds = Rounds());

// Prints a line of JSON: {"name", "project", "peer", "unit", "note"}. `times` is divided by
// `count` and told in `unit`: "ns", "us" or "ms".
void PrintPair(const std::string& name, CPairTimes times, size_t count, const std::string& unit,
               const std::string& note = {});
// The same for two figures as they are.
void PrintFigures(const std::string& name, double project, double peer, const std::string& unit,
                  const std::string& note = {});

// How often memory was allocated with operator new since the process began.
size_t AllocationCount();

// Each has a file of its own, which says what is included.
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
// Not a pair but one half of one: of a tree that is indexed in that database, what a hit and a
// first read cost.
void MeasureTree(CBenchWorld& world, const std::string& root, const std::string& db_path);

}  // namespace pysource::bench
