// bench_pairs [NAME...]: measures these pairs, or all.
// bench_pairs tree ROOT DATABASE: measures reads in a tree that is indexed in that database.
//
// The pairs use the files of $SCOPEINFO_BENCH_ROOT, or of this machine's Python standard library.
#include <cstdio>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "bench/pairs/pair.h"

namespace pysource::bench {
namespace {

using Measure = void (*)(CBenchWorld&, const CCorpus&);
const std::vector<std::pair<std::string, Measure>> kPairs = {
    {"encode", MeasureEncode}, {"decode", MeasureDecode},        {"ask", MeasureAsk},
    {"merge", MeasureMerge},   {"first-read", MeasureFirstRead}, {"write", MeasureWrite},
    {"add", MeasureAdd},       {"memory", MeasureMemory},        {"edit", MeasureEdit},
    {"stages", MeasureStages},
};

int Run(const std::vector<std::string>& arguments) {
  if (!arguments.empty() && arguments[0] == "tree" && arguments.size() == 3) {
    CBenchWorld world;
    MeasureTree(world, arguments[1], arguments[2]);
    return 0;
  }
  std::vector<Measure> wanted;
  for (const std::string& argument : arguments) {
    for (const auto& [name, measure] : kPairs) {
      if (name == argument) {
        wanted.push_back(measure);
      }
    }
  }
  if (wanted.size() != arguments.size()) {
    std::fprintf(stderr, "bench_pairs: no such pair; there are:");
    for (const auto& [name, measure] : kPairs) {
      std::fprintf(stderr, " %s", name.c_str());
    }
    std::fprintf(stderr, "\n");
    return 2;
  }
  if (wanted.empty()) {
    for (const auto& [name, measure] : kPairs) {
      wanted.push_back(measure);
    }
  }
  CBenchWorld world;
  const CCorpus corpus = ScanCorpus(world, CorpusRoot());
  for (const Measure measure : wanted) {
    EncodeAll(corpus);
    measure(world, corpus);
    world.Close();
  }
  return 0;
}

}  // namespace
}  // namespace pysource::bench

int main(int argc, char** argv) {
  try {
    return pysource::bench::Run({argv + 1, argv + argc});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "bench_pairs: %s\n", error.what());
    return 1;
  }
}
