// The scanner against Python itself: the names bound in each scope of its standard library.
//
// A few hundred files by default; SCOPEINFO_SYMTABLE_FILES sets another number (0 for all), and
// SCOPEINFO_SYMTABLE_FOLDER another folder.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <memory>
#include <numeric>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "pysource/host/symbolinfo.h"
#include "pysource/standalone/scanner/sourcefile.h"
#include "tests/scanner/scan_helper.h"

namespace pysource::standalone {
namespace {

using NameSet = std::set<Text>;
// By path of the scope; several of one path only among those without a name of their own.
using ScopeNames = std::map<Text, std::multiset<NameSet>>;

struct CDifference {
  Text scope;
  Text name;         // "?x" is declared here (global, nonlocal) and bound elsewhere
  bool from_python;  // Python has it and the scanner does not, or the other way round
};

// The kinds of difference, each with its reason. Whatever is none of these fails the test.
enum DifferenceKind : size_t { kIterable, kWalrus, kGlobal, kGrammar, kKindCount };
constexpr std::array<const char*, kKindCount> kReasons{
    "the iterable that a comprehension is called with: to Python its argument",
    "a walrus in a comprehension: Python also declares the name there, as bound outside",
    "a name that some function declares global: Python also notes it in the module",
    "in a file that the grammar does not understand throughout though Python does (a line within "
    "brackets that begins left of its block, after a \".\")",
};
// Such files are rare enough to be looked at one by one.
constexpr size_t kMostNotUnderstood = 3;

// Takes the names out of a comprehension's set that are there for Python's own ends, and counts
// them.
void TakeOutExplained(const Text& scope, NameSet& names, std::array<size_t, kKindCount>& counts) {
  if (!scope.ends_with('>') || scope.ends_with("<lambda>")) {
    return;
  }
  counts[kIterable] += names.erase(".0");
  counts[kWalrus] += std::erase_if(names, [](const Text& name) { return name[0] == '?'; });
}

Text WithoutUnnamedIndices(const Text& scope) {
  Text result;
  std::istringstream in(scope);
  for (Text part; std::getline(in, part, '.');) {
    result += result.empty() ? "" : ".";
    result += part.starts_with('<') ? part.substr(0, part.find('#')) : part;
  }
  return result;
}

ScopeNames NamesOf(const CFileScan& scan) {
  ScopeNames result;
  for (const CScanResult& scanned : scan.results) {
    if (scanned.scan_name != kNamesScan) {
      continue;
    }
    NameSet names;
    for (const auto& [name, ibytes] : scanned.infos.at(0)->type_equivs) {
      if (!IsVariableName(name)) {
        continue;
      }
      const bool only_declared = ibytes == kGlobalPrefix || ibytes == kNonlocalPrefix;
      names.insert((only_declared ? "?" : "") + Text(name));
    }
    result[WithoutUnnamedIndices(scanned.scanned_scope)].insert(std::move(names));
  }
  return result;
}

// The differences of two scopes of one path.
void Compare(const Text& scope, const NameSet& python, const NameSet& scanner,
             std::vector<CDifference>& out) {
  for (const Text& name : python) {
    // A declaration counts as found where the scanner has more than that of the name.
    if (!scanner.contains(name) && !(name[0] == '?' && scanner.contains(name.substr(1)))) {
      out.push_back({scope, name, true});
    }
  }
  for (const Text& name : scanner) {
    if (!python.contains(name) && !python.contains("?" + name)) {
      out.push_back({scope, name, false});
    }
  }
}

std::vector<CDifference> Compare(const ScopeNames& python, const ScopeNames& scanner) {
  std::vector<CDifference> result;
  for (const auto& [scope, expected] : python) {
    const auto found = scanner.find(scope);
    if (found == scanner.end() || found->second.size() != expected.size()) {
      result.push_back({scope, "<number of scopes>", true});
      continue;
    }
    // Equal ones leave each other; the rest is compared in order.
    std::vector<NameSet> left;
    std::vector<NameSet> right;
    std::set_difference(expected.begin(), expected.end(), found->second.begin(),
                        found->second.end(), std::back_inserter(left));
    std::set_difference(found->second.begin(), found->second.end(), expected.begin(),
                        expected.end(), std::back_inserter(right));
    for (size_t i = 0; i < left.size(); ++i) {
      Compare(scope, left[i], right[i], result);
    }
  }
  for (const auto& [scope, unused] : scanner) {
    if (!python.contains(scope)) {
      result.push_back({scope, "<scope>", false});
    }
  }
  return result;
}

const char* Setting(const char* name, const char* otherwise) {
  const char* const value = std::getenv(name);
  return value == nullptr ? otherwise : value;
}

TEST(SymtableTest, NamesBoundAreThoseThatPythonFinds) {
  const std::string command =
      std::string("python3 '") + SCOPEINFO_SOURCE_DIR + "/tests/scanner/symtable_check.py' " +
      Setting("SCOPEINFO_SYMTABLE_FILES", "300") + " " + Setting("SCOPEINFO_SYMTABLE_FOLDER", "");
  // From 3.12 on, the symbol tables run comprehensions together with what is around them.
  if (std::system("python3 -c 'import symtable, sys; sys.exit(sys.version_info >= (3, 12))' "
                  ">/dev/null 2>&1") != 0) {
    GTEST_SKIP() << "there is no python3 here, or it is too new to be compared with";
  }
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  ASSERT_NE(pipe, nullptr);
  std::string output;
  std::array<char, 65536> block;
  for (size_t size = 0; (size = fread(block.data(), 1, block.size(), pipe.get())) != 0;) {
    output.append(block.data(), size);
  }

  CScanWorld world;
  std::array<size_t, kKindCount> counts{};
  size_t not_understood = 0;
  size_t files = 0;
  size_t scopes = 0;
  size_t names = 0;
  size_t unexplained = 0;
  std::string left_out = "?";
  std::string path;
  ScopeNames python;
  const auto finish_file = [&] {
    if (path.empty()) {
      return;
    }
    ++files;
    const CSourceFile file = ReadSourceFile(path);
    const CFileScan scan = world.Scan(file.source);
    const std::vector<CDifference> found = Compare(python, NamesOf(scan));
    if (scan.error_count != 0 && !found.empty()) {
      ++not_understood;
      printf("not understood throughout: %s, line %zu\n", path.c_str(), scan.first_error_line);
    }
    for (const CDifference& d : found) {
      if (scan.error_count != 0) {
        ++counts[kGrammar];
      } else if (d.from_python && d.scope.empty() && d.name[0] == '?') {
        ++counts[kGlobal];
      } else if (++unexplained <= 20) {
        ADD_FAILURE() << path << ": scope '" << d.scope << "': " << d.name << " only for "
                      << (d.from_python ? "Python" : "the scanner");
      }
    }
    python.clear();
  };
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("F ")) {
      finish_file();
      path = line.substr(2);
    } else if (line.starts_with("S ")) {
      const size_t tab = line.find('\t');
      std::istringstream words(line.substr(tab + 1));
      NameSet set{std::istream_iterator<std::string>(words), {}};
      names += set.size();
      ++scopes;
      Text scope = WithoutUnnamedIndices(line.substr(2, tab - 2));
      TakeOutExplained(scope, set, counts);
      python[std::move(scope)].insert(std::move(set));
    } else if (line.starts_with("X ")) {
      left_out = line.substr(2);
    }
  }
  finish_file();

  printf(
      "%zu files (%s more that this Python does not take), %zu scopes, %zu names: "
      "%zu differences, %zu unexplained\n",
      files, left_out.c_str(), scopes, names,
      std::accumulate(counts.begin(), counts.end(), unexplained), unexplained);
  for (size_t kind = 0; kind < kKindCount; ++kind) {
    printf("  %6zu %s\n", counts[kind], kReasons[kind]);
  }
  EXPECT_LE(not_understood, kMostNotUnderstood);
  EXPECT_GT(files, 0U) << output.substr(0, 1000);
  EXPECT_EQ(unexplained, 0U);
}

}  // namespace
}  // namespace pysource::standalone
