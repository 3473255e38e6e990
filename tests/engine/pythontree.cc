#include "tests/engine/pythontree.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <utility>

#include "pysource/host/strutils.h"
#include "pysource/scopeinfo/filestate/equivs.h"
#include "pysource/scopeinfo/records/mergescopeinfo.h"

namespace pysource::standalone {
namespace {

using scopeinfo::CScopeInfoPtr;

// In each piece $m is a module, $v a value, $1 a digit, $x an attribute, $b a base class.
constexpr std::array kPieces{
    "$x = $v\n",
    "import $m\n$m.$x = $v\n",
    "import $m as z$1\nz$1.$x = $v\n",
    "from p import a, b as y\ny.$x = $v\n",
    "from . import $x\nfrom .b import *\n",
    "from $m import *\n",
    "import $m, $m\n",
    "class C$1($b):\n    k = $v\n    def __init__(self, v=$v):\n        self.$x = $v\n",
    "class C$1:\n    class D:\n        def m(self):\n            self.$x = self.$x\n",
    "class E$1($b):\n    def m(self):\n        import $m\n        $m.$x = $v\n        self.$x = "
    "f$1()\n",
    "def f$1(x=$v, *a):\n    $x = $v\n    return [i for i in $x]\n",
    "def s$1():\n    import $m as t\n    t.$x = $v\n    t.$x = s$1\n",
    "def n$1():\n    def inner():\n        global $x\n        $x = $v\n    return lambda q: q\n",
    // Half-typed.
    "class \n",
    "def f$1(\n",
    "$x = (\n",
    "import \n",
    "      $x = $v\n",
    "self.\n",
};
constexpr std::array kValues{"1", "''", "None", "f0()", "C1()", "x", "[]", "x.y"};
constexpr std::array kAttributes{"x", "y", "w"};
constexpr std::array kImports{"p", "p.a", "p.b", "q.d", "q.e", "g", "h", "k"};
constexpr std::array kBases{"object", "C0", "C1", "z1.C0", "p.a.C1", "g.C2"};

Text Filled(fakes::CRandom& random, std::string_view piece) {
  Text text;
  const char* const module = random.Of(kImports);
  for (size_t i = 0; i < piece.size(); ++i) {
    if (piece[i] != '$') {
      text += piece[i];
      continue;
    }
    switch (piece[++i]) {
      case 'm':
        text += module;
        break;
      case 'v':
        text += random.Of(kValues);
        break;
      case 'x':
        text += random.Of(kAttributes);
        break;
      case 'b':
        text += random.Of(kBases);
        break;
      default:
        text += static_cast<char>('0' + random.Below(3));
    }
  }
  return text;
}

void AddItems(CSeen& seen, const Text& prefix, const CStrDict& dict) {
  for (const auto& [name, ibytes] : dict) {
    std::set<Bytes>& items = seen[prefix + Text(name)];
    ForEachNonNested(ibytes, kInfoBytesSep, [&](BytesView item) { items.emplace(item); });
  }
}

}  // namespace

Text RandomSource(fakes::CRandom& random) {
  Text text;
  for (size_t i = random.Below(6); i > 0; --i) {
    text += Filled(random, random.Of(kPieces));
  }
  return text;
}

CSeen Seen(const scopeinfo::CScopeInfo& info) {
  CSeen seen;
  seen[""] = {Bytes(info.scope_ibytes)};
  AddItems(seen, "=", info.type_equivs);
  if (info.inst_type_equivs) {
    AddItems(seen, "inst:", *info.inst_type_equivs);
  }
  return seen;
}

bool IsPartOf(const CSeen& part, const CSeen& whole) {
  return std::all_of(part.begin(), part.end(), [&](const auto& entry) {
    const auto at = whole.find(entry.first);
    return at != whole.end() && std::includes(at->second.begin(), at->second.end(),
                                              entry.second.begin(), entry.second.end());
  });
}

Text Difference(const CSeen& told, const CSeen& expected) {
  Text text;
  const auto add = [&](const char* what, const CSeen& these, const CSeen& those) {
    for (const auto& [name, items] : these) {
      const auto other = those.find(name);
      for (const Bytes& item : items) {
        if (other == those.end() || !other->second.contains(item)) {
          text += Text(what) + " " + name + " " + item + "\n";
        }
      }
    }
  };
  add("  told and wrong:", told, expected);
  add("  not told:", expected, told);
  return text;
}

CPythonTree::CPythonTree(std::string root)
    : _fRoot(std::move(root)), _fResolver(_fLocCache, _fTimes, {_fRoot}) {}
CPythonTree::~CPythonTree() = default;

Loc CPythonTree::At(const std::string& name) const {
  return _fLocCache.GetLocationForPath(_fRoot + "/" + name);
}

void CPythonTree::SetText(const std::string& name, const std::optional<Text>& text) {
  // Imports find what is on disk; a buffer can outlive its file.
  const bool is_on_disk = std::filesystem::exists(_fRoot + "/" + name);
  if (text.has_value() != Exists(name) || is_on_disk != _fOnDisk.contains(name)) {
    _fOnDisk.erase(name);
    if (is_on_disk) {
      _fOnDisk.insert(name);
    }
    _fScans.clear();
    _fResolver.Clear();
  }
  _fScans.erase(name);
  if (text) {
    _fTexts[name] = *text;
  } else {
    _fTexts.erase(name);
  }
}

const std::vector<CScopeInfoPtr>& CPythonTree::Scan(const std::string& name) const {
  const auto [scan, is_new] = _fScans.try_emplace(name);
  if (is_new && Exists(name)) {
    for (const CScanResult& result :
         _fScanner.Scan({.loc = At(name), .source = _fTexts.at(name), .disk_mtime = 2}).results) {
      scan->second.insert(scan->second.end(), result.infos.begin(), result.infos.end());
    }
  }
  return scan->second;
}

TextSet CPythonTree::ScopeNames(const std::string& name) const {
  TextSet names;
  for (const CScopeInfoPtr& info : Scan(name)) {
    names.emplace(info->scanned_scope.value_or(""));
  }
  return names;
}

// Those that are for the scope of the file, the primary one first. Derived ones alone are nothing.
void CPythonTree::AddRecords(const std::string& name, const Text& scope, bool only_own,
                             std::vector<CScopeInfoPtr>& records) const {
  std::vector<CScopeInfoPtr> found;
  bool has_primary = false;
  const Loc loc = At(name);
  for (const auto& [scanned, text] : _fTexts) {
    if (only_own && scanned != name) {
      continue;
    }
    for (const CScopeInfoPtr& info : Scan(scanned)) {
      if (info->loc == loc && info->for_scope == scope) {
        const bool is_primary = info->key.scan_name() == kNamesScan;
        has_primary = has_primary || is_primary;
        found.insert(is_primary ? found.begin() : found.end(), info);
      }
    }
  }
  if (has_primary) {
    records.insert(records.end(), found.begin(), found.end());
  }
}

std::optional<CSeen> CPythonTree::Expected(const std::string& name, const Text& scope,
                                           bool only_own) const {
  std::vector<CScopeInfoPtr> records;
  AddRecords(name, scope, only_own, records);
  if (name.ends_with(".py") && _fOnDisk.contains(name + "i")) {
    AddRecords(name + "i", scope, only_own, records);
  }
  if (records.empty()) {
    return std::nullopt;
  }
  const CScopeInfoPtr merged = records.front()->Copy();
  records.erase(records.begin());
  return Seen(*scopeinfo::MergeScopeInfoSeq(merged, records, {}));
}

bool CPythonTree::Finds(const std::string& scanned, const Text& scanned_scope, const Text& scan,
                        const std::string& name, const Text& scope) const {
  const Loc loc = At(name);
  const std::vector<CScopeInfoPtr>& found = Scan(scanned);
  return std::any_of(found.begin(), found.end(), [&](const CScopeInfoPtr& info) {
    return info->scanned_scope == scanned_scope && info->key.scan_name() == scan &&
           info->loc == loc && info->for_scope == scope;
  });
}

std::set<std::pair<Text, Bytes>> CPythonTree::Equivs(const std::string& name, bool classes) const {
  std::set<std::pair<Text, Bytes>> equivs;
  for (const CScopeInfoPtr& info : Scan(name)) {
    const scopeinfo::CEquivStrings found = scopeinfo::CollectEquivs(*info);
    ForEachNonNested(classes ? found.class_equivs : found.import_equivs, kInfoBytesSep,
                     [&, &info = info](BytesView item) {
                       equivs.emplace(classes ? Text() : Text(info->for_scope), item);
                     });
  }
  return equivs;
}

}  // namespace pysource::standalone
