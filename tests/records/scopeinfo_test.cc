// Records: building, asking, copying.

#include "pysource/scopeinfo/records/scopeinfo.h"
#include "pysource/host/symbolinfo/kinds.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <utility>

#include "pysource/host/analysismgr.h"
#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "tests/fakes/world.h"

namespace pysource::scopeinfo {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Records : public fakes::CWorldTest {
 protected:
  CScopeInfoPtr Record(TextView for_scope, BytesView scope_ibytes = ":cC()") const {
    return std::make_shared<CScopeInfo>(CScopeInfoKey(a, for_scope, ":names", b, "scanned"),
                                        scope_ibytes, 1234.5, false);
  }
  const Loc a = fWorld.File("a.py");
  const Loc b = fWorld.File("b.py");
};

TEST_F(Records, TakeTheirKindFromNameAndInfoBytes) {
  struct {
    TextView for_scope;
    BytesView scope_ibytes;
    Kind kind;
  } const rows[] = {
      {"", ":cC()", kModuleKind},
      {"", "", kModuleKind},
      {"C:", ":cC()", kInstanceKind},
      {"C:", "", kInstanceKind},
      {"C", ":cC()", kClassKind},
      {"f", ":Ff()", kFunctionKind},
      {"C.m", ":mC.m()", kMethodKind},
      {"C.s", ":uC.s()", kUnboundMethodKind},
      {"f", "", 0},
      {"f", ":g3", 0},
      {"f", "plain", 0},
      {"f", ":", 0},
      {"f", ":g3;:cC()", 0},
      {"f", ":cC();:g3", kClassKind},  // only the head counts
  };
  for (const auto& row : rows) {
    const auto record = Record(row.for_scope, Bytes(row.scope_ibytes));
    EXPECT_EQ(record->scope_kind, row.kind) << row.for_scope << " " << row.scope_ibytes;
    EXPECT_EQ(record->scope_ibytes, row.scope_ibytes);
  }
}

TEST_F(Records, KeepInfoBytesByName) {
  const auto record = Record("C");
  record->SetInfoBytes("x", ":s1");
  record->SetInfoBytes("x", ":s2;:lint");  // replaces
  EXPECT_EQ(record->GetInfoBytes("x"), ":s2;:lint");
  EXPECT_EQ(record->GetInfoBytes("y", "none"), "none");
  EXPECT_EQ(record->GetInfoBytes("x", "none", true), "none");
  EXPECT_THROW(record->SetInfoBytes("x", ":s3", true), CTypeError);
  EXPECT_FALSE(record->inst_type_equivs);

  record->inst_type_equivs.emplace();
  EXPECT_EQ(record->GetInfoBytes("x", "none", true), "none");
  record->SetInfoBytes("x", "", true);
  EXPECT_EQ(record->GetInfoBytes("x", "none", true), "");
  EXPECT_EQ(record->BytecodeGetInfoBytes("x", std::nullopt, false), ":s2;:lint");
}

TEST_F(Records, KeepDomainsByName) {
  const auto record = Record("C");
  EXPECT_THAT(record->GetDomainSeq("x"), IsEmpty());
  for (const bool inst : {false, true}) {
    EXPECT_THROW(record->SetDomainSeq("x", {"a"}, inst), CTypeError);
  }
  record->_domains.emplace();
  record->_inst_domains.emplace();
  record->SetDomainSeq("x", {"a", "f(b", "c)", ""});
  record->SetDomainSeq("none", {});
  record->SetDomainSeq("x", {"i"}, true);
  EXPECT_THAT(record->GetDomainSeq("x"), ElementsAre("a", "f(b", "c)", ""));  // split plainly
  EXPECT_EQ(record->_domains->Get("x"), "a;f(b;c);");
  EXPECT_THAT(record->GetDomainSeq("none"), ElementsAre(""));
  EXPECT_THAT(record->GetDomainSeq("unknown"), IsEmpty());
  EXPECT_THAT(record->GetInstDomainSeq("x"), ElementsAre("i"));
}

TEST_F(Records, AreCheckedWhenTheyAreFinished) {
  const auto record = Record("C");
  record->SetInfoBytes("caf\xC3\xA9", "\xFF");
  record->FinishedBuilding();
  record->inst_type_equivs.emplace();
  record->SetInfoBytes("\xC3", "x", true);
  EXPECT_THROW(record->FinishedBuilding(), CAssertionError);
  record->inst_type_equivs.reset();
  record->SetInfoBytes("\xFF", "x");
  EXPECT_THROW(record->FinishedBuilding(), CAssertionError);
  SetAssertionsActive(false);
  record->FinishedBuilding();
}

TEST_F(Records, AreEncodedOnceByTheOneInfoCache) {
  const auto record = Record("C");
  EXPECT_THROW(record->GetSerializedData(), CTypeError);
  fakes::CFakeInfoCache cache;
  CAnalysisManager manager;
  fWorld.fSingletons.fAnalysisMgr = &manager;
  EXPECT_THROW(record->GetSerializedData(), CTypeError);
  manager.fInfoCache = &cache;
  EXPECT_EQ(record->GetSerializedData(), "encoded");
  manager.fInfoCache = nullptr;
  record->SetInfoBytes("x", ":s1");
  EXPECT_EQ(record->GetSerializedData(), "encoded");  // kept, whatever happens to the record
}

TEST_F(Records, AreCopied) {
  const auto record = std::make_shared<CScopeInfo>(CScopeInfoKey(a, "C", ":names", b, "D"), ":cC()",
                                                   1234.5, true, true);
  record->type_equivs = {{"z", "b;a;b"}, {"x", ":s1"}};
  record->_domains = CStrDict{{"x", "d"}};
  record->inst_type_equivs = CStrDict{{"x", ":s3"}};
  record->specialized_cls_name = "Special";
  record->merged_keys = std::make_shared<CScopeInfoKeySet>(CScopeInfoKeySet{record->key});
  record->_serialized_data = "bytes";
  record->_merged_info_list.emplace();
  record->scope_seen_dict = std::make_shared<CScopesSeenDict>();

  const auto copy = record->Copy();
  EXPECT_EQ(copy->key, CScopeInfoKey(a, "C", {}, {}, {}));
  EXPECT_TRUE(copy->type_equivs == record->type_equivs);
  EXPECT_EQ(copy->type_equivs.begin()->second, "b;a;b");  // as it is, neither sorted nor prefixed
  EXPECT_TRUE(*copy->_domains == *record->_domains);
  EXPECT_TRUE(*copy->inst_type_equivs == *record->inst_type_equivs);
  EXPECT_FALSE(copy->_inst_domains);
  EXPECT_EQ(copy->scope_ibytes, ":cC()");
  EXPECT_EQ(copy->disk_mtime, 1234.5);
  EXPECT_TRUE(copy->incomplete && copy->does_not_exist);
  EXPECT_EQ(copy->specialized_cls_name, "Special");
  EXPECT_EQ(copy->merged_keys, record->merged_keys);
  EXPECT_FALSE(copy->scope_seen_dict || copy->_serialized_data || copy->_merged_info_list);
  copy->SetInfoBytes("x", "changed");
  EXPECT_EQ(record->GetInfoBytes("x"), ":s1");
  EXPECT_EQ(record->Repr(), "CScopeInfo(Location('file:///src/a.py'), 'C', 'D', 1234.5, True)");

  const auto instance_only = record->Copy(/*inst_only=*/true, /*keep_key=*/true);
  EXPECT_EQ(instance_only->key, record->key);
  EXPECT_TRUE(instance_only->type_equivs.empty());
  EXPECT_FALSE(instance_only->_domains);
  EXPECT_TRUE(*instance_only->inst_type_equivs == *record->inst_type_equivs);
  EXPECT_TRUE(instance_only->incomplete);

  record->_inst_domains = CStrDict{{"x", "i"}};
  EXPECT_EQ(record->Copy()->_inst_domains->Get("x"), "d;i");
  record->_domains.reset();
  EXPECT_THROW(record->Copy(), CTypeError);
}

TEST_F(Records, CopiesForAStarImportFilterNames) {
  const auto record = Record("");
  const std::pair<CScopeInfoPtr, std::array<bool, 3>> rows[] = {
      {record->Copy(), {false, false, false}},
      {record->Copy(false, false, false, TextSet{"x"}), {false, false, false}},
      {record->Copy(false, false, true), {false, false, true}},
      {record->Copy(false, false, true, TextSet{"x"}), {false, true, true}},
      {record->Copy(false, false, true, TextSet{"_x"}), {true, true, false}},
      {record->Copy(false, false, true, TextSet{}), {true, true, true}},
  };
  for (const auto& [copy, expected] : rows) {
    EXPECT_EQ((std::array{copy->IsNameFilteredOut("x"), copy->IsNameFilteredOut("y"),
                          copy->IsNameFilteredOut("_x")}),
              expected);
  }
}

TEST_F(Records, NoteTheScopesSeen) {
  const auto record = Record("C");
  CScopesSeenDict seen;
  record->MergeScopesSeen(seen);
  ASSERT_NE(record->scope_seen_dict, nullptr);  // empty, not absent
  seen.Set({a, "f"}, 1.5);
  seen.Set({b, "f"}, 2.5);
  record->MergeScopesSeen(seen);
  CScopesSeenDict later;
  later.Set({a, "f"}, 3.5);
  record->MergeScopesSeen(later);
  EXPECT_EQ(*record->scope_seen_dict->Find(CScopeRefView(a, "f")), 3.5);
  EXPECT_EQ(*record->scope_seen_dict->Find(CScopeRefView(b, "f")), 2.5);
  EXPECT_EQ(*seen.Find(CScopeRefView(a, "f")), 1.5);
}

}  // namespace
}  // namespace pysource::scopeinfo
