// Random choices for the tests that compare a thing with a naive model of it.
//
// Every run has another seed, which is printed; see TestSeed in world.h for how to repeat one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <random>
#include <string>
#include <string_view>

#include "tests/fakes/world.h"

namespace pysource::fakes {

class CRandom {
 public:
  explicit CRandom(uint64_t seed = TestSeed()) : _fEngine(seed) {}

  // A number from 0 up to, but not including, `bound`.
  size_t Below(size_t bound) {
    return std::uniform_int_distribution<size_t>(0, bound - 1)(_fEngine);
  }
  bool OneIn(size_t n) { return Below(n) == 0; }
  // One of the items of a container or array.
  template <class Items>
  const auto& Of(const Items& items) {
    return *(std::begin(items) + static_cast<std::ptrdiff_t>(Below(std::size(items))));
  }
  // Up to `most` characters, each one of `alphabet`.
  std::string Text(std::string_view alphabet, size_t most) {
    std::string text(Below(most + 1), '\0');
    for (char& c : text) {
      c = Of(alphabet);
    }
    return text;
  }

 private:
  std::mt19937_64 _fEngine;
};

}  // namespace pysource::fakes
