// For the random test of the engine: a small tree of Python files made at random, and what is to be
// known of it, worked out from fresh scans alone.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "pysource/host/analysisdb.h"
#include "pysource/scopeinfo/records/scopeinfo.h"
#include "pysource/standalone/scanner/scanner.h"
#include "tests/fakes/random.h"

namespace pysource::standalone {

// The files that there can be. A stub comes and goes with, or after, the file that it is beside.
inline const std::vector<std::string> kModules{"p/__init__.py", "p/a.py", "p/b.py", "p/c.py",
                                               "q/__init__.py", "q/d.py", "q/e.py", "g.py",
                                               "h.py",          "k.py"};
inline const std::vector<std::string> kStubs{"p/a.pyi", "q/d.pyi", "h.pyi"};

// A source made of small pieces: mostly whole ones, now and then half-typed.
Text RandomSource(fakes::CRandom& random);

// What a reader can see of a merged record, without the order in which it was merged: the items of
// "name", those of "inst:name", and the scope itself under "".
using CSeen = std::map<Text, std::set<Bytes>>;
CSeen Seen(const scopeinfo::CScopeInfo& info);
bool IsPartOf(const CSeen& part, const CSeen& whole);
// What is in one and not in the other, a line each.
Text Difference(const CSeen& told, const CSeen& expected);

// The present texts of all files, and what they say.
class CPythonTree {
 public:
  explicit CPythonTree(std::string root);
  ~CPythonTree();

  // The text of a file, on disk or in an open buffer; absent when there is no such file.
  void SetText(const std::string& name, const std::optional<Text>& text);
  bool Exists(const std::string& name) const { return _fTexts.contains(name); }

  // The names of all scopes of the file.
  TextSet ScopeNames(const std::string& name) const;
  // The merged record of a scope as it is to be told, the stub of the file included. With
  // `only_own` what other files say is left out: it reaches a process only when these are scanned.
  // Absent when there is no such scope.
  std::optional<CSeen> Expected(const std::string& name, const Text& scope, bool only_own) const;
  // Whether the scan of `scanned_scope` finds something for the scope of the file.
  bool Finds(const std::string& scanned, const Text& scanned_scope, const Text& scan,
             const std::string& name, const Text& scope) const;
  // The class or import items of the file, by scope.
  std::set<std::pair<Text, Bytes>> Equivs(const std::string& name, bool classes) const;

 private:
  const std::vector<scopeinfo::CScopeInfoPtr>& Scan(const std::string& name) const;
  void AddRecords(const std::string& name, const Text& scope, bool only_own,
                  std::vector<scopeinfo::CScopeInfoPtr>& records) const;
  Loc At(const std::string& name) const;

  const std::string _fRoot;
  mutable CLocationCache _fLocCache;
  mutable CDiskTimes _fTimes;
  mutable CFileImportResolver _fResolver;
  mutable CScanner _fScanner{_fResolver};
  std::map<std::string, Text> _fTexts;
  std::set<std::string> _fOnDisk;
  // Scans of what has not changed since. A file that comes or goes changes what imports mean, and
  // so all of them.
  mutable std::map<std::string, std::vector<scopeinfo::CScopeInfoPtr>> _fScans;
};

}  // namespace pysource::standalone
