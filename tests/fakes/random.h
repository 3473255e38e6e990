// Random choices, for tests that compare code with a naive model.
//
// Each test has a fixed seed, so that a test that passes keeps passing. To run with other seeds and
// more steps, use the arguments
//
//   test_engine --gtest_filter='*Random*' --seed=12345 --steps=100000
//
// or the environment variables SCOPEINFO_TEST_SEED and SCOPEINFO_TEST_STEPS, which ctest passes on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <random>
#include <string>
#include <string_view>

namespace pysource::fakes {

// The requested seed, or `usual`. Prints it, so that the output of a failed test contains it.
uint64_t TestSeed(uint64_t usual = 1);
// The number of steps of a random walk: the requested number, or `usual`.
size_t TestSteps(size_t usual);

class CRandom {
 public:
  explicit CRandom(uint64_t seed = TestSeed()) : _fEngine(seed) {}

  // A number that is at least 0 and less than `bound`.
  size_t Below(size_t bound) {
    return std::uniform_int_distribution<size_t>(0, bound - 1)(_fEngine);
  }
  bool OneIn(size_t n) { return Below(n) == 0; }
  // One of the items of a container or array.
  template <class Items>
  const auto& Of(const Items& items) {
    return *(std::begin(items) + static_cast<std::ptrdiff_t>(Below(std::size(items))));
  }
  // At most `most` characters, each from `alphabet`.
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
