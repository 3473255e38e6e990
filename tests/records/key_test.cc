// Keys of records, sets of them, and the constants of the module.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <unordered_set>
#include <utility>
#include <vector>

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/scopeinfo/records/scopeinfokey.h"
#include "pysource/scopeinfo/records/scopeinfokeyset.h"
#include "pysource/scopeinfo/records/vocabulary.h"
#include "tests/fakes/random.h"
#include "tests/fakes/world.h"

namespace pysource::scopeinfo {
namespace {

using OptionalText = std::optional<TextView>;

class Keys : public fakes::CWorldTest {
 protected:
  const Loc a = fWorld.File("a.py");
  const Loc b = fWorld.File("b.py");
};

TEST_F(Keys, AreMadeOfWhatIsWellFormed) {
  struct {
    Loc for_loc;
    TextView for_scope;
    OptionalText scan_name;
    Loc scanned_loc;
    OptionalText scanned_scope;
    bool is_good;
  } const rows[] = {
      {a, "f.g", ":names", b, "h", true}, {a, "a.b", {}, {}, {}, true},  // of a merged record
      {a, "", ":names", a, "", true},                                    // of a module
      {a, "", {}, a, "<package>", true},  // the three scan fields are not tied together
      {a, "x", ":", {}, {}, true},        {a, "a.C:", ":names", a, "a.C:", true},
      {a, "f", "names", a, "f", false},   {a, "f", "", a, "f", false},
      {a, ":f", ":names", a, "f", false}, {{}, "f", ":names", a, "f", false},
  };
  for (const auto& row : rows) {
    const auto make = [&row] {
      return CScopeInfoKey(row.for_loc, row.for_scope, row.scan_name, row.scanned_loc,
                           row.scanned_scope);
    };
    if (!row.is_good) {
      EXPECT_THROW(make(), CAssertionError) << row.for_scope;
      SetAssertionsActive(false);
    }
    const CScopeInfoKey key = make();
    SetAssertionsActive(true);
    EXPECT_EQ(key.for_loc(), row.for_loc);
    EXPECT_EQ(key.for_scope(), row.for_scope);
    EXPECT_EQ(key.scan_name(), row.scan_name);
    EXPECT_EQ(key.scanned_loc(), row.scanned_loc);
    EXPECT_EQ(key.scanned_scope(), row.scanned_scope);
    size_t text = row.for_scope.size() + row.scan_name.value_or("").size();
    text += row.scanned_scope != row.for_scope ? row.scanned_scope.value_or("").size() : 0;
    EXPECT_EQ(key.MemoryUse() - text, CScopeInfoKey(a, "", {}, {}, {}).MemoryUse());
  }
}

TEST_F(Keys, AreEqualWhenAllFieldsAre) {
  const CResourceLocation twin(a->fUrl);
  const CScopeInfoKey key(a, "f", ":names", b, "g");
  const CScopeInfoKey same(&twin, Text("f"), ":names", b, "g");
  EXPECT_TRUE(key == same && key.Equals(same) && !(key != same));
  EXPECT_EQ(key.Hash(), same.Hash());
  const CScopeInfoKey others[] = {
      {b, "f", ":names", b, "g"},
      {a, "g", ":names", b, "g"},
      {a, "f", ":attrs", b, "g"},
      {a, "f", ":names", a, "g"},
      {a, "f", ":names", b, "f"},
      {a, "f", {}, b, "g"},
      {a, "f", ":names", {}, "g"},
      {a, "f", ":names", b, {}},
      {a, "f", ":names", b, ""},
      // The same letters, divided otherwise.
      {a, "f", ":name", b, "sg"},
  };
  std::unordered_set<CScopeInfoKey> set{key, same};
  for (const CScopeInfoKey& other : others) {
    EXPECT_TRUE(key != other && !(key == other) && !key.Equals(other)) << other.Repr();
    set.insert(other);
  }
  EXPECT_EQ(set.size(), 11U);

  // An absent key is neither equal nor unequal to anything, and less or equal to everything.
  const CScopeInfoKey absent;
  for (const CScopeInfoKey& other : {key, absent}) {
    EXPECT_FALSE(absent == other || absent != other || other == absent || other != absent);
    EXPECT_TRUE(absent <= other && other <= absent);
  }
}

TEST_F(Keys, LessOrEqualIsAChainOfComparisonsAndNoOrder) {
  const CScopeInfoKey key(a, "m", ":m", a, "m");
  EXPECT_FALSE(key <= key);
  struct {
    CScopeInfoKey other;
    bool is_less_or_equal;
  } const rows[] = {
      {{b, "a", ":a", a, "a"}, true},  // decided by the first field that is less
      {{a, "n", ":a", a, "a"}, true},
      {{a, "a", ":n", a, "a"}, true},  // though for_scope is greater
      {{a, "a", ":a", b, "a"}, true},
      {{a, "a", ":a", a, "n"}, true},
      {{a, "a", ":a", a, "m"}, false},  // the last field decides alone
  };
  for (const auto& row : rows) {
    EXPECT_EQ(key <= row.other, row.is_less_or_equal) << row.other.Repr();
  }
  const CScopeInfoKey merged(a, "m", {}, {}, {});
  EXPECT_TRUE(merged <= CScopeInfoKey(b, "m", {}, {}, {}));  // decided before the absent fields
  EXPECT_THROW(static_cast<void>(merged <= merged), CTypeError);
  EXPECT_THROW(static_cast<void>(key <= merged), CTypeError);
  const CScopeInfoKey no_loc(a, "m", ":m", {}, "m");
  EXPECT_THROW(static_cast<void>(key <= no_loc), CTypeError);
}

TEST_F(Keys, HaveATextForm) {
  EXPECT_EQ(CScopeInfoKey(a, "f", ":names", b, "").Repr(),
            "CScopeInfoKey(Location('file:///src/a.py'), 'f', ':names', "
            "Location('file:///src/b.py'), '')");
  EXPECT_EQ(CScopeInfoKey(a, "f", {}, {}, {}).Repr(),
            "CScopeInfoKey(Location('file:///src/a.py'), 'f', None, None, None)");
}

TEST_F(Keys, SetsOfThemAreSets) {
  fakes::CRandom random;
  CScopeInfoKeySet set;
  std::unordered_set<CScopeInfoKey> model;
  // Phases of growth and of shrinking, through the single key, the array and the table.
  size_t most = 2;
  for (int step = 0; step < 4000; ++step) {
    most = step % 500 == 0 ? random.Of(std::vector<size_t>{2, 6, 12, 100}) : most;
    const CScopeInfoKey key(random.OneIn(2) ? a : b, std::to_string(random.Below(most)), ":names",
                            a, "");
    if (random.OneIn(2)) {
      EXPECT_EQ(set.insert(key), model.insert(key).second);
    } else if (!set.empty() && random.OneIn(8)) {
      const CScopeInfoKey first = *set.begin();
      EXPECT_TRUE(set.erase(*set.begin()));
      model.erase(first);
    } else if (random.OneIn(100)) {
      set = CScopeInfoKeySet(set.begin(), set.end());
    } else {
      EXPECT_EQ(set.erase(key), model.erase(key) == 1);
    }
    ASSERT_EQ(set.contains(key), model.contains(key));
    ASSERT_EQ(set.size(), model.size());
    ASSERT_EQ(std::unordered_set<CScopeInfoKey>(set.begin(), set.end()), model);
  }
  CScopeInfoKeySet other = set;
  EXPECT_TRUE(other == set);
  other.insert(CScopeInfoKey(a, "another", {}, {}, {}));
  EXPECT_FALSE(other == set);
  CScopeInfoKeySet moved = std::move(other);
  EXPECT_EQ(moved.size(), model.size() + 1);
  moved.clear();
  EXPECT_TRUE(moved.empty() && moved.begin() == moved.end());
}

TEST(Vocabulary, DiskTimesThatNameAStateOfTheDisk) {
  const std::pair<DiskTime, bool> rows[] = {{kFileDoesNotExistMtime, true},
                                            {kFileModifiedInMemoryMtime, false},
                                            {kFileUnknownOnDiskMtime, false},
                                            {1.5, true},
                                            {1.0000001, true},
                                            {0.5, false},
                                            {-2.0, false}};
  for (const auto& [mtime, is_valid] : rows) {
    EXPECT_EQ(ValidOnDiskMtime(mtime), is_valid) << mtime;
  }
}

TEST(Vocabulary, ADevelopmentRunIsOneOutsideOfBin) {
  // This test lies beside its sources; the program that is handed out lies in bin/.
  EXPECT_TRUE(kDevelopmentRun());
  EXPECT_TRUE(SetDevelopmentRun(false));
  EXPECT_FALSE(kDevelopmentRun());
  EXPECT_FALSE(SetDevelopmentRun(true));
}

}  // namespace
}  // namespace pysource::scopeinfo
