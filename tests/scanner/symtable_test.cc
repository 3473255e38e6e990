// The scanner against Python itself: the names bound in each scope of its standard library, and of
// stub files where there are some.
//
// A few hundred files by default; SCOPEINFO_SYMTABLE_FILES sets another number of each folder (0 for
// all), SCOPEINFO_SYMTABLE_FOLDER other folders, and SCOPEINFO_SYMTABLE_PYTHON the Python to run.
// bench/symtable runs it over all Pythons of a machine.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "pysource/host/symbolinfo/kinds.h"
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

// Takes the names out of a comprehension's set that are there for Python's own ends: the iterable
// that it is called with, and a walrus in it, which is declared there as bound outside.
void TakeOutInternal(const Text& scope, NameSet& names) {
  if (scope.ends_with("<genexpr>")) {
    names.erase(".0");
    std::erase_if(names, [](const Text& name) { return name[0] == '?'; });
  }
}

Text WithoutUnnamedIndices(const Text& scope) {
  Text result;
  std::istringstream in(scope);
  for (Text part; std::getline(in, part, '.');) {
    result += result.empty() ? "" : ".";
    part = part.starts_with('<') ? part.substr(0, part.find('#')) : part;
    result += part.ends_with("comp>") ? "<genexpr>" : part;
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

// Of each file; a run over everything tells some of each kind.
constexpr size_t kMaxShown = 3;

const char* Setting(const char* name, const char* otherwise) {
  const char* const value = std::getenv(name);
  return value == nullptr ? otherwise : value;
}

TEST(SymtableTest, NamesBoundAreThoseThatPythonFinds) {
  const std::string python = Setting("SCOPEINFO_SYMTABLE_PYTHON", "python3");
  const std::string command =
      python + " '" + SCOPEINFO_SOURCE_DIR + "/tests/scanner/symtable_check.py' " +
      Setting("SCOPEINFO_SYMTABLE_FILES", "300") + " " + Setting("SCOPEINFO_SYMTABLE_FOLDER", "");
  if (std::system((python + " -c '' >/dev/null 2>&1").c_str()) != 0) {
    GTEST_SKIP() << "there is no " << python << " here";
  }
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  ASSERT_NE(pipe, nullptr);
  std::string output;
  std::array<char, 65536> block;
  for (size_t size = 0; (size = fread(block.data(), 1, block.size(), pipe.get())) != 0;) {
    output.append(block.data(), size);
  }

  CScanWorld world;
  size_t not_understood = 0;
  size_t files = 0;
  size_t scopes = 0;
  size_t names = 0;
  size_t differences = 0;
  std::string left_out = "?";
  std::string path;
  ScopeNames expected;
  const auto finish_file = [&] {
    if (path.empty()) {
      return;
    }
    ++files;
    const CSourceFile file = ReadSourceFile(path);
    const CFileScan scan = world.Scan(file.source);
    not_understood += scan.error_count != 0 ? 1 : 0;
    size_t shown = 0;
    for (const CDifference& d : Compare(expected, NamesOf(scan))) {
      ++differences;
      if (++shown <= kMaxShown) {
        ADD_FAILURE() << path << ": scope '" << d.scope << "': " << d.name << " only for "
                      << (d.from_python ? "Python" : "the scanner")
                      << (scan.error_count == 0 ? "" : "; the grammar does not take line ")
                      << (scan.error_count == 0 ? "" : std::to_string(scan.first_error_line));
      }
    }
    expected.clear();
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
      TakeOutInternal(scope, set);
      expected[std::move(scope)].insert(std::move(set));
    } else if (line.starts_with("X ")) {
      left_out = line.substr(2);
    }
  }
  finish_file();

  printf(
      "%zu files (%s more that this Python does not take), %zu scopes, %zu names: "
      "%zu differences; %zu files with errors to the grammar\n",
      files, left_out.c_str(), scopes, names, differences, not_understood);
  EXPECT_GT(files, 0U) << output.substr(0, 1000);
  EXPECT_EQ(differences, 0U);
}

}  // namespace
}  // namespace pysource::standalone
