#include "pysource/scopeinfo/filestate/crossfiledata.h"

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "tests/fakes/cachehost.h"

namespace pysource::scopeinfo {
namespace {

using fakes::KeyOf;
using fakes::MakeRecord;

class CrossFileDataTest : public fakes::CCacheTest {};

TEST_F(CrossFileDataTest, Filters) {
  for (const Text scope : {"", "f", "g"}) {
    for (const Text scan : {":names", ":attrs"}) {
      Cross().AddInfoKey(KeyOf({.loc = kA, .scope = scope, .scan = scan, .scanned_loc = kB}),
                         nullptr);
    }
  }
  Cross().AddInfoKey(CScopeInfoKey(kA, "g", std::nullopt, kB, "g"), nullptr);
  struct {
    const char* why;
    std::optional<TextSet> scopes;
    std::optional<TextSet> scans;
    size_t count;
  } const kCases[] = {
      {"absent lets all through", {}, {}, 7},
      {"so does the wildcard among others", TextSet{"f", "*"}, {}, 7},
      {"an empty filter lets nothing through", TextSet{}, {}, 0},
      {"unknown names add nothing", TextSet{"f", "unknown"}, {}, 2},
      {"a key without a scan is in no list of scans", TextSet{"g"}, TextSet{":names"}, 1},
      {"* of scans is all", TextSet{"g"}, TextSet{"*"}, 3},
      {"no scans, no keys", {}, TextSet{}, 0},
  };
  for (const auto& [why, scopes, scans, count] : kCases) {
    const TextSet* const scope_set = scopes ? &*scopes : nullptr;
    const TextSet* const scan_set = scans ? &*scans : nullptr;
    EXPECT_EQ(Cross().GetInfoKeysByForLoc(kA, scope_set, scan_set).size(), count) << why;
    EXPECT_EQ(Cross().GetScannedLocInfoKeys(kB, scope_set, scan_set).size(), count) << why;
    EXPECT_EQ(Cross().GetInfoKeysByForLoc(kB, scope_set, scan_set).size(), 0U) << why;
    for (const CScopeInfoKey& key : Cross().GetInfoKeysByForLoc(kA)) {
      Cross().AddToWriteInfoKey(key);
    }
    EXPECT_EQ(Cross().GetToWriteInfoKeyCount(kA, scope_set, scan_set), count) << why;
  }
  EXPECT_EQ(Cross().GetToWriteInfoKeyCount(kA, "g"), 3U);
  EXPECT_EQ(Cross().GetToWriteInfoKeyCount(kA, "*"), 7U);
  EXPECT_THROW(Cross().GetInfoKeysByForLoc(nullptr), CAssertionError);
}

TEST_F(CrossFileDataTest, TheLifeOfAKey) {
  const CScopeInfoKey key = KeyOf({.loc = kA, .scope = "f"});
  const auto info = MakeRecord({.loc = kA, .scope = "f", .seen = {{{kB, "g"}, 2.0}}});
  const auto expect = [&](const char* what, const Text& standing) {
    EXPECT_EQ(Standing(key), standing) << what;
    Cross().CheckInvariants();
  };
  EXPECT_FALSE(Cross().AddNeedsScanInfoKey(key));
  expect("a key without a record has nothing to rescan", "");
  Cross().AddInfoKey(key, nullptr);
  Cross().AddInDatabaseInfoKey(key);
  expect("read from the database", "MD");
  EXPECT_TRUE(Cross().AddNeedsScanInfoKey(key));
  EXPECT_FALSE(Cross().AddNeedsScanInfoKey(key));
  expect("stale, and in the database all the same", "MND");
  Cross().AddInfoKey(key, info, false);
  expect("a live record alone does not clear that", "MNDL");
  Cross().AddInfoKey(key, info, true);
  expect("a scan does", "MDL");
  Cross().AddToWriteInfoKey(key);
  expect("queued", "MWL");
  Cross().AddCouldNotWriteInfoKey(key);
  expect("not written", "MWCL");
  EXPECT_THROW(Cross().AddInDatabaseInfoKey(key), CAssertionError);
  EXPECT_TRUE(Cross().AddNeedsScanInfoKey(key));
  expect("what is stale is not written", "MNL");
  Cross().RemoveNeedsScanInfoKey(key);
  EXPECT_THROW(Cross().AddCouldNotWriteInfoKey(key), CAssertionError);
  Cross().AddToWriteInfoKey(key);
  Cross().RemoveToWriteInfoKey(key);
  expect("no longer to be written is not in the database", "ML");
  Cross().InvalidateForScannedLoc(kA);
  expect("the scan is gone by file", "MNL");
  Cross().UpdateExistingSourceInfo(key, nullptr);
  Cross().UpdateExistingSourceInfo(key, nullptr);
  expect("no live record", "MN");
  EXPECT_EQ(Cross().GetDependentScanKeys(kB, {"g"}).size(), 1U) << "dependencies stay";
  EXPECT_EQ(Cross().GetDependentScanKeys(kB, {"h"}).size(), 0U);
  Cross().RemoveInfoKey(key);
  Cross().RemoveInfoKey(key);
  expect("removed", "");
  EXPECT_EQ(Cross().GetDependentScanKeys(kB, {"g"}).size(), 0U);
  EXPECT_THROW(Cross().AddToWriteInfoKey(key), CAssertionError);
  SetAssertionsActive(false);
  Cross().AddToWriteInfoKey(key);
  EXPECT_EQ(Standing(key), "W") << "with assertions off the check is skipped";
  Cross().RemoveToWriteInfoKey(key);
}

}  // namespace
}  // namespace pysource::scopeinfo
