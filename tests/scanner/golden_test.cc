// What the scanner says of fixed sources, word for word: those of golden/sources.txt, each behind a
// line "=== <name>", and the examples. The records stand in golden/records.txt. The scanner may say
// something else only under another version, or a database would go on telling what an older one
// said.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "tests/scanner/scan_helper.h"

namespace pysource::standalone {
namespace {

namespace fs = std::filesystem;

const fs::path kRoot = SCOPEINFO_SOURCE_DIR;

std::string Read(const fs::path& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

TEST(GoldenTest, TheSameVersionSaysTheSame) {
  std::map<std::string, std::string> sources;
  std::string name;
  std::istringstream lines(Read(kRoot / "tests/scanner/golden/sources.txt"));
  for (std::string line; std::getline(lines, line);) {
    line.starts_with("=== ") ? name = line : sources[name] += line + "\n";
  }
  for (const auto& entry : fs::recursive_directory_iterator(kRoot / "examples")) {
    if (entry.path().string().find(".py") != std::string::npos) {
      sources["=== " + fs::relative(entry.path(), kRoot).string()] = Read(entry.path());
    }
  }
  CScanWorld world;
  world.resolver.Add("os");
  world.resolver.Add("star");
  std::string records = "scanner version " + std::to_string(kScannerVersion) + "\n";
  for (const auto& [title, source] : sources) {
    records += title + "\n" + Dump(world.Scan(source), world.loc);
  }
  const fs::path golden = kRoot / "tests/scanner/golden/records.txt";
  if (std::getenv("SCOPEINFO_RENEW_GOLDEN") != nullptr) {
    std::ofstream(golden) << records;
  }
  EXPECT_EQ(records, Read(golden))
      << "The scanner says something else. If that is meant, raise kScannerVersion in scanner.h,\n"
         "then: SCOPEINFO_RENEW_GOLDEN=1 test_scanner --gtest_filter='GoldenTest.*'";
}

}  // namespace
}  // namespace pysource::standalone
