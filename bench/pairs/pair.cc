#include "bench/pairs/pair.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <vector>

namespace {

size_t allocation_count = 0;  // not atomic, since pairs are measured on one thread

void* Allocate(size_t size) {
  ++allocation_count;
  if (void* const memory = std::malloc(size == 0 ? 1 : size)) {
    return memory;
  }
  throw std::bad_alloc();
}

}  // namespace

void* operator new(size_t size) { return Allocate(size); }
void* operator new[](size_t size) { return Allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, size_t) noexcept { std::free(memory); }

namespace pysource::bench {
namespace {

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

}  // namespace

size_t AllocationCount() { return allocation_count; }

int Rounds() {
  const char* const named = std::getenv("SCOPEINFO_BENCH_ROUNDS");
  return named == nullptr ? 7 : std::max(1, std::atoi(named));
}

CPairTimes InTurn(const std::function<double()>& project, const std::function<double()>& peer,
                  int rounds) {
  std::vector<double> of_project;
  std::vector<double> of_peer;
  for (int round = -1; round < rounds; ++round) {
    const double project_seconds = project();
    const double peer_seconds = peer();
    if (round >= 0) {
      of_project.push_back(project_seconds);
      of_peer.push_back(peer_seconds);
    }
  }
  return {Median(of_project), Median(of_peer)};
}

void PrintFigures(const std::string& name, double project, double peer, const std::string& unit,
                  const std::string& note) {
  fmt::print(
      "{{\"name\": \"{}\", \"project\": {}, \"peer\": {}, \"unit\": \"{}\", \"note\": \"{}\"}}\n",
      name, project, peer, unit, note);
  std::fflush(stdout);
}

void PrintPair(const std::string& name, CPairTimes times, size_t count, const std::string& unit,
               const std::string& note) {
  const double scale = (unit == "ns" ? 1e9 : unit == "us" ? 1e6 : 1e3) / static_cast<double>(count);
  PrintFigures(name, times.project * scale, times.peer * scale, unit, note);
}

}  // namespace pysource::bench
