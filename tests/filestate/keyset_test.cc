// Key sets and the indexes over them, beside std::set.
#include <map>
#include <set>

#include "pysource/host/errors.h"
#include "pysource/host/repr.h"
#include "pysource/scopeinfo/filestate/keysbyaddress.h"
#include "tests/fakes/random.h"
#include "tests/fakes/world.h"

namespace pysource::scopeinfo {
namespace {

TEST(KeySetTest, SetAndIndexAgreeWithAPlainSet) {
  fakes::CWorld world;
  fakes::CRandom random;
  const Loc files[] = {world.File("a.py"), world.File("b.py")};
  for (const size_t scopes : {2, 7, 60}) {
    CScopeInfoKeySet set;
    CKeysByAddress index(KeyAddress::kScanned);
    std::map<Text, CScopeInfoKey> model;  // by text form
    for (int step = 0; step < 3000; ++step) {
      const Loc loc = random.Of(files);
      // Removing wins now and then, so that the set grows and shrinks.
      const bool adds = random.Below(10) < (step / 300 % 2 == 0 ? 7U : 2U);
      const CScopeInfoKey key(loc, std::to_string(random.Below(scopes)),
                              random.OneIn(5) ? std::nullopt : std::optional<TextView>(":s"), loc,
                              random.OneIn(5) ? std::nullopt : std::optional<TextView>("f"));
      if (adds) {
        ASSERT_EQ(set.insert(key), model.emplace(key.Repr(), key).second);
        index.Add(key);
      } else {
        ASSERT_EQ(set.erase(key), model.erase(key.Repr()) == 1);
        index.Discard(key);
      }
      ASSERT_EQ(set.contains(key), adds);
      ASSERT_EQ(set.size(), model.size());
      if (step % 50 == 0) {
        std::set<Text> seen;
        for (const CScopeInfoKey& each : set) {
          ASSERT_TRUE(seen.insert(each.Repr()).second) << "a key is there twice";
        }
        ASSERT_EQ(seen.size(), model.size());
        ASSERT_TRUE(CScopeInfoKeySet(set) == set);
        index.CheckHolds(set);
      }
    }
    for (const auto& [text, key] : model) {
      index.Discard(key);
    }
    EXPECT_TRUE(index.ByLoc().empty()) << "a file without keys stays";
    if (!set.empty()) {
      EXPECT_THROW(index.CheckHolds(set), CAssertionError) << "the check finds nothing";
    }
  }
}

}  // namespace
}  // namespace pysource::scopeinfo
