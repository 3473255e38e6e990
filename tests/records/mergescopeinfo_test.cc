// Merging: each rule by itself, and random merges against a naive model.

#include "pysource/scopeinfo/records/mergescopeinfo.h"
#include "pysource/host/symbolinfo/kinds.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/host/repr.h"
#include "tests/fakes/random.h"
#include "tests/fakes/world.h"

namespace pysource::scopeinfo {
namespace {

using testing::ElementsAre;

class Merging : public fakes::CWorldTest {
 protected:
  static CScopeInfoPtr Record(Loc loc, TextView for_scope, TextView scanned_scope,
                              const CStrDict& equivs = {}) {
    auto record = std::make_shared<CScopeInfo>(
        CScopeInfoKey(loc, for_scope, ":names", loc, scanned_scope), ":cC()", 1234.5, false);
    record->type_equivs = equivs;
    return record;
  }
  const Loc a = fWorld.File("a.py");
  const Loc b = fWorld.File("b (;).py");
};

TEST_F(Merging, ItemsTakeTheirContextAlong) {
  const CResourceLocation twin_of_a(a->fUrl);
  struct {
    const char* why;
    Loc loc;
    TextView for_scope;
    std::optional<BytesView> old;
    BytesView merged_in, result;
  } const rows[] = {
      {"same scope: appended, not sorted", a, "f", "z", "b;z;a", "z;b;a"},
      {"same scope, a new name: as given", a, "f", {}, "b;a;b", "b;a;b"},
      {"another scope: prefixed, doubles dropped, sorted", a, "g", "z", "b;:s1;b",
       ":Sg :s1;:Sg b;z"},
      {"another scope: what stands for itself is kept",
       a,
       "g",
       {},
       ":lint;:bstr;:Ux y;:Sh y",
       ":Sh y;:Ux y;:bstr;:lint"},
      {"another scope: an item of the old value is kept once", a, "g", ":Sg b;c", "b", ":Sg b;c"},
      {"another scope: old items are not rewritten, but are sorted", a, "g", "z;b;:s1;b", "",
       ":s1;b;z"},
      {"another scope: an empty item is an item", a, "g", {}, ";", ":Sg "},
      {"another scope: nothing gives an empty value", a, "g", {}, "", ""},
      {"another scope: nesting does not separate", a, "g", {}, ":ef(a;b)", ":Sg :ef(a;b)"},
      {"another file: the URL in front", b, "f", "z", "b;a",
       ":Ufile:///src/b%20%28%3B%29.py :Sf a;:Ufile:///src/b%20%28%3B%29.py :Sf b;z"},
      {"another file: a scope is one of that file",
       b,
       "",
       {},
       ":Sh y",
       ":Ufile:///src/b%20%28%3B%29.py :S :Sh y"},
      {"another file: what stands for itself is kept",
       b,
       "g",
       {},
       ":lint;:bstr;:Ux y",
       ":Ux y;:bstr;:lint"},
      {"an equal location is not the same one",
       &twin_of_a,
       "f",
       {},
       "b",
       ":Ufile:///src/a.py :Sf b"},
  };
  for (const auto& row : rows) {
    for (const bool inst : {false, true}) {
      SCOPED_TRACE(row.why);
      const auto into = Record(a, "f", "f");
      const auto from = Record(row.loc, row.for_scope, "other");
      into->inst_type_equivs.emplace();
      from->inst_type_equivs.emplace();
      if (row.old) {
        into->SetInfoBytes("x", *row.old, inst);
      }
      from->SetInfoBytes("x", row.merged_in, inst);
      into->Merge(from, /*inst_only=*/inst);
      EXPECT_EQ(into->GetInfoBytes("x", std::nullopt, inst), row.result);
      EXPECT_EQ(into->GetInfoBytes("x", std::nullopt, !inst), std::nullopt);
    }
  }
}

TEST_F(Merging, OneScanOfOneFileCannotSupplyTwoScopesOfOneRecord) {
  const auto into = Record(a, "f", "f");
  into->Merge(Record(a, "g", "f", {{"x", ":lint;:bstr;:Ux y"}}), false);  // nothing to rewrite
  EXPECT_THROW(into->Merge(Record(a, "g", "f", {{"x", ":Sh y"}}), false), CAssertionError);
  EXPECT_THROW(into->Merge(Record(a, "g", "f", {{"x", "y"}}), false), CAssertionError);
  EXPECT_EQ(into->_merged_info_list->size(), 3U);  // what was done before stays done
  into->Merge(Record(b, "g", "f", {{"y", "y"}}), false);
  SetAssertionsActive(false);
  into->Merge(Record(a, "g", "f", {{"x", "y"}}), false);
  EXPECT_EQ(into->GetInfoBytes("x"), ":Sg y;:Ux y;:bstr;:lint");
}

TEST_F(Merging, FlagsAreMergedEvenWithInstanceInformationOnly) {
  for (int bits = 0; bits < 16; ++bits) {
    for (const bool inst_only : {false, true}) {
      const CScopeInfo from(CScopeInfoKey(a, "f", {}, {}, {}), "", 1.5, (bits & 1) != 0,
                            (bits & 2) != 0);
      CScopeInfo into(from.key, "", 1.5, (bits & 4) != 0, (bits & 8) != 0);
      into.Merge(from.Copy(), inst_only);
      EXPECT_EQ(into.incomplete, (bits & 5) != 0);
      EXPECT_EQ(into.does_not_exist, (bits & 10) == 10);
    }
  }
}

TEST_F(Merging, Domains) {
  const auto into = Record(a, "f", "f");
  const auto from = Record(b, "g", "g");
  into->_domains = CStrDict{{"x", "b;a"}};
  from->_domains = CStrDict{{"x", "a;c"}, {"y", "q;p"}};
  into->Merge(from, false, /*add_to_merge_list=*/false);  // joined, neither prefixed nor sorted
  EXPECT_TRUE(*into->_domains == (CStrDict{{"x", "b;a;c"}, {"y", "q;p"}}));
  EXPECT_FALSE(into->_merged_info_list);

  // The instance domain of a name is that of the class and the new one; the old one goes.
  into->_inst_domains = CStrDict{{"x", "old"}, {"w", "old"}};
  from->_inst_domains = CStrDict{{"x", "new;a"}, {"z", "new"}};
  into->Merge(from, true);
  EXPECT_TRUE(*into->_inst_domains == (CStrDict{{"x", "b;a;c;new"}, {"w", "old"}, {"z", "new"}}));

  const auto without = Record(a, "f", "f");
  without->inst_type_equivs.emplace();
  EXPECT_THROW(without->Merge(from, true), CTypeError);
  EXPECT_TRUE(without->_inst_domains && without->_inst_domains->empty());
  from->_inst_domains.emplace();
  without->Merge(from, true);  // there is nothing to look up
}

TEST_F(Merging, SequencesAreFoldedIntoThePrimaryRecord) {
  const auto primary = Record(a, "f", "f", {{"x", "1"}});
  const auto keys_before = primary->merged_keys;
  EXPECT_EQ(MergeScopeInfoSeq(primary, {}, {}), primary);
  EXPECT_EQ(primary->merged_keys, keys_before);
  EXPECT_FALSE(primary->_merged_info_list);

  primary->_serialized_data = "bytes";
  const auto other = Record(a, "f", "g", {{"x", "2"}});
  const auto inst = Record(a, "f", "h", {{"x", "3"}});
  inst->inst_type_equivs = CStrDict{{"x", "4"}};
  EXPECT_EQ(MergeScopeInfoSeq(primary, {other, other}, {nullptr, inst, primary}), primary);
  EXPECT_EQ(primary->GetInfoBytes("x"), "1;2");
  EXPECT_EQ(primary->GetInfoBytes("x", std::nullopt, true), "4");
  EXPECT_TRUE(*primary->merged_keys == (CScopeInfoKeySet{primary->key, other->key, inst->key}));
  EXPECT_THAT(*primary->_merged_info_list, ElementsAre(other, other, inst, primary));
  EXPECT_EQ(primary->_serialized_data, "bytes");
  primary->_merged_info_list.reset();  // it holds itself

  EXPECT_EQ(MergeScopeInfoSeq(primary, {other}, {}), primary);
  EXPECT_TRUE(*primary->merged_keys == (CScopeInfoKeySet{primary->key, other->key}));  // replaced
  EXPECT_TRUE(kEmptyKeySet->empty());

  EXPECT_THROW(MergeScopeInfoSeq(primary, {nullptr}, {}), CAssertionError);
  SetAssertionsActive(false);
  EXPECT_THROW(MergeScopeInfoSeq(primary, {nullptr}, {}), CTypeError);
  // A list of absent records only is still a merge.
  EXPECT_EQ(MergeScopeInfoSeq(primary, {}, {nullptr}), primary);
  EXPECT_TRUE(*primary->merged_keys == (CScopeInfoKeySet{primary->key}));
}

TEST_F(Merging, ImplicitPackages) {
  const auto package = CreateImplicitPackageInfo(a, {"mod", "sub"});
  EXPECT_EQ(package->key, CScopeInfoKey(a, "", {}, a, "<package>"));
  EXPECT_EQ(package->disk_mtime, -1.0);
  EXPECT_TRUE(package->type_equivs == (CStrDict{{"mod", ":s-1;:f. mod"}, {"sub", ":s-1;:f. sub"}}));
  const auto empty = CreateImplicitPackageInfo(a, {});
  EXPECT_TRUE(empty->type_equivs.empty() && empty->scope_ibytes.empty() && !empty->incomplete);
  EXPECT_EQ(empty->scope_kind, kModuleKind);
}

// The model: what each name can be, as a list of items. Items are made without brackets, so that
// splitting is plain.
struct CModelRecord {
  using Dict = std::map<Text, std::vector<Text>>;

  static void AddNew(std::vector<Text>& items, const Text& item) {
    if (std::find(items.begin(), items.end(), item) == items.end()) {
      items.push_back(item);
    }
  }
  static void Join(Dict& into, const Dict& from) {
    for (const auto& [name, items] : from) {
      auto& old = into[name];
      if (old.empty()) {
        old = items;
      } else {
        std::for_each(items.begin(), items.end(), [&](const Text& item) { AddNew(old, item); });
      }
    }
  }
  void MergeEquivs(const CModelRecord& other, Dict& into, const Dict& from) const {
    if (file == other.file && scope == other.scope) {
      Join(into, from);
      return;
    }
    for (const auto& [name, items] : from) {
      std::set<Text> all(into[name].begin(), into[name].end());
      for (const Text& item : items) {
        const Text head = item.substr(0, 2);
        const bool is_free =
            head == ":l" || head == ":b" || head == ":U" || (head == ":S" && file == other.file);
        Text qualified = file == other.file ? "" : ":Ufile:///src/" + other.file + " ";
        qualified.append(":S").append(other.scope).append(" ").append(item);
        all.insert(is_free ? item : qualified);
      }
      into[name].assign(all.begin(), all.end());
    }
  }
  void Merge(const CModelRecord& other, bool inst_only) {
    if (!inst_only) {
      MergeEquivs(other, equivs, other.equivs);
      Join(domains, other.domains);
    }
    MergeEquivs(other, inst_equivs, other.inst_equivs);
    for (const auto& [name, items] : other.inst_domains) {
      Dict joined;
      if (domains.contains(name)) {
        joined[name] = domains[name];
      }
      Join(joined, {{name, items}});
      inst_domains[name] = joined[name];
    }
  }

  Text file, scope;
  Dict equivs, inst_equivs, domains, inst_domains;
};

CModelRecord::Dict RandomDict(fakes::CRandom& random) {
  static const Text kItems[] = {"a.b",           "c",   ":lint", ":bstr", ":Sg x",
                                ":Ufile:///z x", ":s3", ":g"};
  CModelRecord::Dict dict;
  for (size_t left = random.Below(4); left != 0; --left) {
    auto& items = dict[random.Of(std::vector<Text>{"p", "q", "r"})];
    items.push_back(random.Of(kItems));
  }
  return dict;
}

CStrDict Stored(const CModelRecord::Dict& dict) {
  CStrDict stored;
  for (const auto& [name, items] : dict) {
    Bytes joined;
    for (const Text& item : items) {
      joined += joined.empty() ? "" : ";";
      joined += item;
    }
    stored.Set(name, joined);
  }
  return stored;
}

TEST_F(Merging, GivesWhatTheModelGives) {
  fakes::CRandom random;
  for (int round = 0; round < 500; ++round) {
    int scanned = 0;
    const auto make = [&](CModelRecord& model) {
      model = {random.Of(std::vector<Text>{"a.py", "b.py"}),
               random.Of(std::vector<Text>{"", "f", "f.g"}),
               RandomDict(random),
               RandomDict(random),
               RandomDict(random),
               RandomDict(random)};
      auto record = Record(fWorld.File(model.file), model.scope, std::to_string(++scanned));
      record->type_equivs = Stored(model.equivs);
      record->inst_type_equivs = Stored(model.inst_equivs);
      record->_domains = Stored(model.domains);
      record->_inst_domains = Stored(model.inst_domains);
      return record;
    };
    CModelRecord primary_model;
    const auto primary = make(primary_model);
    std::vector<CScopeInfoPtr> lists[2];
    for (const bool inst_only : {false, true}) {
      for (size_t left = random.Below(4); left != 0; --left) {
        CModelRecord model;
        lists[inst_only ? 1 : 0].push_back(make(model));
        primary_model.Merge(model, inst_only);
      }
    }
    MergeScopeInfoSeq(primary, lists[0], lists[1]);
    ASSERT_TRUE(primary->type_equivs == Stored(primary_model.equivs))
        << Repr(primary->type_equivs) << "\n"
        << Repr(Stored(primary_model.equivs));
    ASSERT_TRUE(*primary->inst_type_equivs == Stored(primary_model.inst_equivs));
    ASSERT_TRUE(*primary->_domains == Stored(primary_model.domains));
    ASSERT_TRUE(*primary->_inst_domains == Stored(primary_model.inst_domains));
    ASSERT_EQ(primary->merged_keys->size(),
              lists[0].empty() && lists[1].empty() ? 0 : 1 + lists[0].size() + lists[1].size());
  }
}

}  // namespace
}  // namespace pysource::scopeinfo
