// What is still known of source that somebody is typing.

#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

#include "pysource/standalone/scanner/sourcefile.h"
#include "tests/fakes/random.h"
#include "tests/scanner/scan_helper.h"

namespace pysource::standalone {
namespace {

// "C.m a self x": a scope and the names that it binds; one line for each.
Text NamesOf(const CFileScan& scan) {
  Text result;
  for (const CScanResult& scanned : scan.results) {
    if (scanned.scan_name == kNamesScan) {
      result += scanned.scanned_scope;
      for (const auto& [name, ibytes] : scanned.infos.at(0)->type_equivs) {
        result += " " + Text(name);
      }
      result += "\n";
    }
  }
  return result;
}

struct CCase {
  const char* source;
  size_t line;  // of the first error
  const char* names;
};

TEST(HalfTypedTest, DamageStaysInItsLine) {
  const std::vector<CCase> cases{
      {"class C:\n def m(self):\n  x = self.\n  y = 1\n def n(self): pass\n", 3,
       " C\nC m n\nC.m self x y\nC.n self\n"},
      {"def f(a, b\n  x = 1\n  return x\ndef g(): pass\n", 1, " f g\nf a b return x\ng\n"},
      {"def g():\n  foo(\n  for a in b:\n    c = 1\n  else:\n    d = 2\n", 2, " g\ng a c d\n"},
      {"class C(\n  def m(self): pass\n", 1, " C\nC m\nC.m self\n"},
      {"x = [1, (2,\ny = 2\nclass D: pass\n", 1, " D x y\nD\n"},
      {"from m import (a, b\nimport c.\ndef f(): pass\n", 1, " a b c f\nf\n"},
      {"if x\n  y = 1\nfor i in\n  z = i\nwith a as\n  w = 1\n", 1, " i w y z\n"},
      {"try:\n  a = 1\nexce\n  b = 1\nelse:\n  c = 1\ndef f(): pass\n", 1, " a b c f\nf\n"},
      {"def f():\n  i\n    a = 1\n  elif y:\n    b = 1\n", 2, " f\nf a b\n"},
      {"f = g(1,\n  h(2\n  k=3,\n)\ndef e(): pass\n", 2, " e f\ne\n"},
      {"f = g\n  1,\n  k=3,\n)\ndef e(): pass\n", 1, " e f\ne\n"},
      {"d = {\n  'a': 1,\n  'b\n  'c': [f'{x\n}\ndef e(): pass\n", 3, " d e\ne\n"},
      {"def f():\n  \"\"\"A text.\n  x = 1\ndef g():\n  \"\"\"And more text.\"\"\"\n  y = 1\n", 2,
       " f g\nf x\ng y\n"},
      {"def f():\n  \"\n  It's a text.\n  \"\"\"\n  x = 1\ndef g():\n  \"\"\"More text.\"\"\"\n", 2,
       " f g\nf x\ng\n"},
      {"x = \"\"\"\ndef f(a):\n  return a\n", 1, " f x\nf a return\n"},
  };
  CScanWorld world;
  for (const CCase& c : cases) {
    const CFileScan scan = world.Scan(c.source);
    EXPECT_EQ(NamesOf(scan), c.names) << c.source;
    EXPECT_EQ(scan.first_error_line, c.line) << c.source;
    EXPECT_GT(scan.error_count, 0U) << c.source;
  }
}

TEST(HalfTypedTest, ACutLineHidesNoOtherScope) {
  fakes::CRandom random(fakes::TestSeed());
  CScanWorld world;
  const auto folder = std::filesystem::path(SCOPEINFO_SOURCE_DIR) / "examples" / "notebook";
  for (const auto& file : std::filesystem::directory_iterator(folder)) {
    const Text source = ReadSourceFile(file.path().string()).source;
    const CFileScan whole = world.Scan(source);
    EXPECT_EQ(whole.error_count, 0U);
    for (size_t at = 0, end = 0; at < source.size(); at = end + 1) {
      end = source.find('\n', at);
      const Text line = source.substr(at, end - at);
      if (line.empty() || line.find("def ") != Text::npos || line.find("class ") != Text::npos) {
        continue;
      }
      const size_t indent = line.find_first_not_of(' ');
      const size_t kept = indent + 1 + random.Below(line.size() - indent);
      const Text cut = Text(source).erase(at + kept, line.size() - kept);
      std::set<Text> found;
      for (const CScanResult& scanned : world.Scan(cut).results) {
        found.insert(scanned.scanned_scope);
      }
      for (const CScanResult& scanned : whole.results) {
        EXPECT_TRUE(scanned.scanned_scope.find('<') != Text::npos ||
                    found.contains(scanned.scanned_scope))
            << file.path() << ": " << line.substr(0, kept) << "|" << scanned.scanned_scope;
      }
    }
  }
}

}  // namespace
}  // namespace pysource::standalone
