// The cost of reading from an indexed tree: a hit, and the first read of a file. The folders below
// the root are copies of one tree (see bench/measure.py). The requested files are the same whatever
// the number of copies, so only the size of the rest makes a difference.
#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "bench/pairs/pair.h"
#include "bench/support/clock.h"
#include "pysource/host/symbolinfo/scopenames.h"

namespace pysource::bench {
namespace {

constexpr size_t kFilesRead = 200;
constexpr size_t kFilesHeld = 250;
constexpr size_t kAsks = size_t{1} << 19;

// `count` files, chosen from the list of files of one copy, each of them taken from the next copy
// in turn.
std::vector<Loc> SameFiles(CBenchWorld& world, const std::string& root, size_t count) {
  namespace fs = std::filesystem;
  std::vector<std::string> copies;
  for (const auto& entry : fs::directory_iterator(root)) {
    copies.push_back(entry.path().string());
  }
  std::sort(copies.begin(), copies.end());
  std::vector<std::string> names;
  for (const auto& file : standalone::FindPythonFiles({copies.at(0)}, world.fLocCache).files) {
    names.push_back(file.path.substr(copies[0].size()));
  }
  std::vector<Loc> locs;
  for (size_t i = 0; i < count && i < names.size(); ++i) {
    const size_t at = i * names.size() / std::min(count, names.size());
    locs.push_back(world.fLocCache.GetLocationForPath(copies[i % copies.size()] + names[at]));
  }
  return locs;
}

std::vector<CRequest> ScopesOf(CBenchWorld& world, const std::vector<Loc>& locs) {
  std::vector<CRequest> requests;
  for (const Loc loc : locs) {
    const TextSet name_set = world.Cache().GetAllScopeNames(loc);
    std::vector<Text> names(name_set.begin(), name_set.end());
    std::sort(names.begin(), names.end());
    for (Text& name : names) {
      requests.push_back({loc, std::move(name)});
    }
  }
  return requests;
}

}  // namespace

void MeasureTree(CBenchWorld& world, const std::string& root, const std::string& db_path) {
  world.Open(db_path);
  const std::vector<CRequest> to_read = ScopesOf(world, SameFiles(world, root, kFilesRead));
  const std::vector<CRequest> to_hold = ScopesOf(world, SameFiles(world, root, kFilesHeld));
  std::vector<Loc> all;
  for (const auto& file : standalone::FindPythonFiles({root}, world.fLocCache).files) {
    all.push_back(file.loc);
  }

  size_t found = 0;
  const auto ask = [&](const std::vector<CRequest>& requests) {
    for (const CRequest& request : requests) {
      found += world.Cache().GetScopeInfo(request.loc, request.scope) != nullptr;
    }
  };
  const CPairTimes reads = InTurn(
      [&] {
        world.Open(db_path);
        return TimeOf([&] { ask(to_read); });
      },
      [] { return 0.0; });

  // As in a session that has opened every file once, and then works with some of them.
  for (const Loc loc : all) {
    (void)world.Cache().GetScopeInfo(loc, kModuleScopeName);
  }
  ask(to_hold);
  std::vector<CRequest> hits;
  for (const size_t draw : ZipfDraws(to_hold.size(), kAsks)) {
    hits.push_back(to_hold[draw]);
  }
  const CPairTimes asks = InTurn([&] { return TimeOf([&] { ask(hits); }); }, [] { return 0.0; });
  if (found == 0) {
    throw std::logic_error("nothing is indexed in " + db_path);
  }
  PrintPair("tree-first-read", reads, to_read.size(), "ns", std::to_string(all.size()) + " files");
  PrintPair("tree-hit", asks, hits.size(), "ns", std::to_string(to_hold.size()) + " scopes");
}

}  // namespace pysource::bench
