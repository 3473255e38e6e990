// The main function of all test executables: that of GoogleTest, plus the two arguments of random
// tests (see random.h). The arguments are put into the environment, so that tests read only that.
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <string_view>

namespace {

// If the argument is `name` and a value, puts the value into the environment and returns true.
bool Take(std::string_view argument, std::string_view name, const char* variable) {
  if (!argument.starts_with(name)) {
    return false;
  }
  // The rest of the argument ends with a zero byte, since the argument does.
  return setenv(variable, argument.substr(name.size()).data(), 1) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  for (int i = 1; i < argc; ++i) {
    if (!Take(argv[i], "--seed=", "SCOPEINFO_TEST_SEED") &&
        !Take(argv[i], "--steps=", "SCOPEINFO_TEST_STEPS")) {
      std::cerr << "unknown argument " << argv[i] << std::endl;
      return 2;
    }
  }
  return RUN_ALL_TESTS();
}
