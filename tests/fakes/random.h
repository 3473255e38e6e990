// Random choices for the tests that compare a thing with a naive model of it.
//
// A test has a seed of its own that does not change from run to run, so that what passes goes on
// passing. Other walks are taken by hand:
//
//   test_engine --gtest_filter='*Random*' --seed=12345 --steps=100000
//
// or by the environment variables SCOPEINFO_TEST_SEED and SCOPEINFO_TEST_STEPS, which ctest hands
// on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <random>
#include <string>
#include <string_view>

namespace pysource::fakes {

// The seed that was asked for, otherwise `usual`. Printed, so that a failure names it.
uint64_t TestSeed(uint64_t usual = 1);
// How many steps a random walk takes: the number that was asked for, otherwise `usual`.
size_t TestSteps(size_t usual);

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
