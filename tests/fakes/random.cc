#include "tests/fakes/random.h"

#include <cstdlib>
#include <iostream>

namespace pysource::fakes {

uint64_t TestSeed(uint64_t usual) {
  const char* const given = std::getenv("SCOPEINFO_TEST_SEED");
  const uint64_t seed = given != nullptr ? std::strtoull(given, nullptr, 10) : usual;
  std::cout << "SCOPEINFO_TEST_SEED=" << seed << std::endl;
  return seed;
}

size_t TestSteps(size_t usual) {
  const char* const given = std::getenv("SCOPEINFO_TEST_STEPS");
  return given != nullptr ? std::strtoull(given, nullptr, 10) : usual;
}

}  // namespace pysource::fakes
