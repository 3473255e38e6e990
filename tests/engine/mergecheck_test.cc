// The check of the cache's answers finds what is wrong in each way that something can be wrong.
#include "pysource/standalone/engine/mergecheck.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/engine/enginefixture.h"

namespace pysource::standalone {
namespace {

using scopeinfo::CScopeInfo;
using scopeinfo::CScopeInfoKey;
using ::testing::HasSubstr;

class MergeCheckTest : public CEngineTest {};

TEST_F(MergeCheckTest, FindsEachKindOfDifference) {
  const struct {
    const char* scope;
    const char* scan;  // whose record for the scope is replaced
    bool is_removed;   // or removed
    const char* difference;
  } kCases[] = {
      {"f", ":names", false, "scope 'f' is answered with another record than its scans give"},
      {"f", ":attrs", false, "scope 'f' is answered, but scans are asked for"},
      {"g", ":names", false, "scope 'g' holds CScopeInfoKey("},
      {"f", ":names", true, "scope 'f' lacks a record that a scan finds"},
  };
  for (const auto& [scope, scan, is_removed, difference] : kCases) {
    const Loc loc = Write("a.py", "def f(): x = 1\n");
    Value(loc, "f", "x");
    Settle();
    const CFoundFiles found = FindPythonFiles({Path("a.py")}, fEngine->Locations());
    const auto check = [&] { return CheckMerged(*fEngine, {found, 1, nullptr, nullptr}); };
    EXPECT_EQ(check().differences.size(), 0U);
    std::vector<scopeinfo::CScopeInfoPtr> infos;
    if (!is_removed) {
      infos.push_back(std::make_shared<CScopeInfo>(CScopeInfoKey(loc, scope, scan, loc, scope), "",
                                                   std::nullopt, false));
      infos.back()->FinishedBuilding();
    }
    fEngine->Cache().AddScopeInfoListForSingleScan(loc, scope, scan, infos);
    const CMergeCheckReport report = check();
    ASSERT_EQ(report.differences.size(), 1U) << difference;
    EXPECT_THAT(report.differences[0].text, HasSubstr(difference));
    fEngine->Cache().ClearFiles({loc}, true);
  }
}

}  // namespace
}  // namespace pysource::standalone
