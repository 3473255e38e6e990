#include "pysource/scopeinfo/dependantcache/scopedependantcache.h"

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>

#include "pysource/host/errors.h"
#include "tests/fakes/random.h"
#include "tests/fakes/world.h"

namespace pysource::scopeinfo {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

using Cache = CScopeDependantCache<Text, int>;

class ScopeDependantCacheTest : public fakes::CWorldTest {
 protected:
  // What `run` prints.
  static Text Printed(const std::function<void()>& run) {
    testing::internal::CaptureStderr();
    run();
    return testing::internal::GetCapturedStderr();
  }
  // "key=value scopes" of a look-up, "unknown" for none; the scopes sorted, as file:scope.
  static Text Look(Cache& cache, const Text& key) {
    const auto found = cache.LookupInCache(key);
    if (found.value == nullptr) {
      return found.scopes.empty() ? "unknown" : "scopes without a value";
    }
    std::set<Text> scopes;
    for (const CScopeRef& ref : found.scopes) {
      scopes.insert(ref.loc->fUrl.substr(ref.loc->fUrl.rfind('/') + 1) + ":" + ref.scope);
    }
    return std::to_string(*found.value) + " " + Repr(scopes);
  }
  void Fill(Cache& cache, int count) {
    for (int i = 0; i < count; ++i) {
      cache.AddToCache(Text(1, static_cast<char>('a' + i)), i, {{kA, "f"}});
    }
  }

  const Loc kA = fWorld.File("a.py");
  const Loc kB = fWorld.File("b.py");
};

TEST_F(ScopeDependantCacheTest, LookupTellsAnUnknownKeyFromAValueWithoutScopes) {
  Cache cache("c", -1);
  EXPECT_EQ(Look(cache, "x"), "unknown");
  cache.AddToCache("x", 1);
  EXPECT_EQ(Look(cache, "x"), "1 set()");
  cache.AddToCache("x", 2, {{kA, "f"}, {kB, "*"}, {kA, "f"}});
  EXPECT_EQ(Look(cache, "x"), "2 {'a.py:f', 'b.py:*'}");
  // A dictionary whose keys are scopes will do, too.
  CScopesSeenDict seen;
  seen.Set({kB, "g"}, 2.0);
  cache.AddToCache("x", 2, seen);
  EXPECT_EQ(Look(cache, "x"), "2 {'b.py:g'}");
  cache.AssertValidImpl();
}

TEST_F(ScopeDependantCacheTest, ScopesOfALookUpCanBeStoredUnderAnotherKey) {
  Cache cache("c", -1);
  cache._fEnableValidityChecks = true;
  cache.AddToCache("0", 0, {{kA, "f"}, {kB, "g"}});
  for (int i = 1; i < 40; ++i) {  // each of the first stores moves the entries in memory
    cache.AddToCache(std::to_string(i), i, cache.LookupInCache(std::to_string(i - 1)).scopes);
  }
  EXPECT_EQ(Look(cache, "39"), "39 {'a.py:f', 'b.py:g'}");
}

TEST_F(ScopeDependantCacheTest, InvalidatingAndDependentKeys) {
  struct Row {
    const char* why;
    TextSet names;
    std::set<Text> dependent;
    std::set<Text> left;  // after invalidating the names in a.py
  };
  const Row rows[] = {
      {"no name", {}, {"whole"}, {"f", "fg", "g", "none", "other", "whole"}},
      {"an unknown name", {"h"}, {"whole"}, {"f", "fg", "g", "none", "other", "whole"}},
      {"either of two scopes", {"f"}, {"f", "fg", "whole"}, {"g", "none", "other", "whole"}},
      {"a key under both names", {"f", "g"}, {"f", "fg", "g", "whole"}, {"none", "other", "whole"}},
      {"all of the file", {"*", "f"}, {"f", "fg", "g", "whole"}, {"none", "other"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    Cache cache("c", -1, false);
    cache._fEnableValidityChecks = true;
    cache.AddToCache("f", 1, {{kA, "f"}});
    cache.AddToCache("g", 2, {{kA, "g"}, {kB, "f"}});
    cache.AddToCache("fg", 3, {{kA, "f"}, {kA, "g"}});
    cache.AddToCache("whole", 4, {{kA, "*"}});
    cache.AddToCache("other", 5, {{kB, "f"}});
    cache.AddToCache("none", 6);
    EXPECT_EQ(cache.GetDependentKeys<std::set<Text>>(kA, row.names), row.dependent);
    EXPECT_THAT(cache.GetDependentKeys(fWorld.File("c.py"), row.names), IsEmpty());
    cache.InvalidateScopes(fWorld.File("c.py"), {"*"});
    cache.InvalidateScopes(kA, row.names);
    const auto keys = cache.Keys();
    EXPECT_EQ(std::set<Text>(keys.begin(), keys.end()), row.left);
    const bool has_g = row.left.contains("g");
    EXPECT_EQ(cache.GetDependentKeys(kB, {"f"}).contains("g"), has_g) << "a trace elsewhere";
  }
}

TEST_F(ScopeDependantCacheTest, TrimTakesTheLeastUsedAndAtLeastOne) {
  struct Row {
    int size;
    int64_t count;
    std::vector<Text> left;  // most recently used first
  };
  const Row rows[] = {{4, 4, {"d", "c", "b"}},
                      {4, 9, {"d", "c", "b"}},
                      {4, 2, {"d", "c"}},
                      {4, 3, {"d", "c", "b"}},
                      {4, 0, {}},
                      {4, -7, {}},
                      {0, 0, {}}};
  for (const Row& row : rows) {
    SCOPED_TRACE(std::to_string(row.size) + " trimmed to " + std::to_string(row.count));
    Cache cache("c", -1, false);
    cache._fEnableValidityChecks = true;
    Fill(cache, row.size);
    cache.Trim(row.count);
    EXPECT_EQ(cache.Keys(), row.left);
    cache.AssertValidImpl();
  }
  // A look-up is a use, and so is storing what is there already; asking whether it is there is not.
  Cache cache("c", -1, false);
  Fill(cache, 4);
  cache.LookupInCache("b");
  cache.AddToCache("a", 0, {{kA, "f"}});
  EXPECT_TRUE(cache.Contains("c"));
  EXPECT_THAT(cache.Keys(), ElementsAre("a", "b", "d", "c"));
}

TEST_F(ScopeDependantCacheTest, IdleTrim) {
  for (const int64_t size : {0, -1}) {
    Cache untrimmed("c", size);
    Fill(untrimmed, 20);
    EXPECT_EQ(fWorld.fLoop.PendingIdleCount(), 0U);
  }
  Cache cache("c", 5);
  Fill(cache, 5);
  EXPECT_EQ(fWorld.fLoop.PendingIdleCount(), 0U) << "at the size, not above it";
  cache.AddToCache("f", 1);
  cache.AddToCache("g", 1);
  EXPECT_EQ(fWorld.fLoop.PendingIdleCount(), 1U) << "one at most";
  EXPECT_EQ(cache.Size(), 7U) << "not before the loop is idle";
  int high_idle_ran_at = 0;
  velk::idle_add([&] {
    high_idle_ran_at = static_cast<int>(cache.Size());
    return false;
  });
  fWorld.fLoop.RunIdle();
  EXPECT_EQ(high_idle_ran_at, 7) << "the trim has the lowest priority";
  EXPECT_THAT(cache.Keys(), ElementsAre("g", "f", "e")) << "three quarters of 5, towards zero";

  Fill(cache, 5);
  EXPECT_EQ(fWorld.fLoop.PendingIdleCount(), 1U);
  cache.Clear();
  EXPECT_EQ(fWorld.fLoop.PendingIdleCount(), 0U) << "a cleared cache has nothing to trim";

  Fill(cache, 6);
  fWorld.fLoop.RunIdle();
  EXPECT_EQ(cache.Size(), 3U) << "a trim can be scheduled again";
}

TEST_F(ScopeDependantCacheTest, SignalsPurge) {
  struct CFactory final : CAnalysisFactory {
    std::vector<Loc> GetSecondaryLocations(Loc) override { return {}; }
  } factory;
  fakes::CFakeInfoCache info_cache;
  CPySourceAnalysis ana(kA);
  Cache cache("c", 3);
  Cache deaf("deaf", -1, false);
  const auto refill = [&] {
    for (Cache* each : {&cache, &deaf}) {
      each->AddToCache("af", 1, {{kA, "f"}});
      each->AddToCache("ag", 2, {{kA, "g"}});
      each->AddToCache("bf", 3, {{kB, "f"}});
      each->AddToCache("none", 4);
    }
  };
  refill();
  CChangedDict changed;
  changed.Set(kA, std::make_shared<TextSet>(TextSet{"f"}));
  changed.Set(kB, std::make_shared<TextSet>(TextSet{"*"}));
  info_cache.emit(kScopesModified, changed);
  EXPECT_THAT(cache.Keys(), UnorderedElementsAre("ag", "none"));
  refill();
  ana.emit(kScopeLogicalsModified, TextSet{"g"});
  EXPECT_THAT(cache.Keys(), UnorderedElementsAre("af", "bf", "none"));
  refill();
  EXPECT_EQ(fWorld.fLoop.PendingIdleCount(), 1U);
  factory.emit(kImportResolutionChanged);
  EXPECT_THAT(cache.Keys(), IsEmpty()) << "also what rests on nothing";
  EXPECT_EQ(fWorld.fLoop.PendingIdleCount(), 0U);
  EXPECT_EQ(deaf.Size(), 4U);

  refill();
  EXPECT_EQ(ClassConnectionCount(), 3U);
  cache.destroy();
  EXPECT_EQ(ClassConnectionCount(), 0U);
  EXPECT_EQ(cache.Size(), 0U);
  cache.AddToCache("after", 1, {{kA, "f"}});
  info_cache.emit(kScopesModified, changed);
  EXPECT_TRUE(cache.Contains("after"));
  cache.destroy();  // a second time is no error
  { Cache short_lived("ends without destroy", 1); }
}

TEST_F(ScopeDependantCacheTest, PrintsWhatHappensToTheKeysThatAreLogged) {
  CScopeDependantCache<CScopeRef, int, CScopeRefHash> cache("merged", -1, false);
  cache.fLogIfInKeyRepr = "'x";
  const auto add = [&](const char* name, int value) {
    cache.AddToCache({kB, name}, value, {{kA, "f"}});
  };
  EXPECT_EQ(Printed([&] { add("x1", 1); }),
            "Setting key in merged cache: (Location('file:///src/b.py'), 'x1')\n");
  EXPECT_EQ(Printed([&] { add("x1", 1); }), "") << "nothing is set";
  EXPECT_EQ(Printed([&] { add("y1", 1); }), "");
  EXPECT_EQ(Printed([&] { cache.InvalidateScopes(kA, {"f"}); }),
            "Deleting key from merged cache: (Location('file:///src/b.py'), 'x1')\n");
  cache.AddToCache({kB, "x2"}, 1, {{kA, "f"}, {kA, "g"}, {kB, "g"}});
  EXPECT_EQ(Printed([&] { cache.InvalidateScopes(kA, {"*"}); }),
            "Deleting key from merged cache: (Location('file:///src/b.py'), 'x2')\n"
            "Deleting key from merged cache: (Location('file:///src/b.py'), 'x2')\n")
      << "with each scope that it rested on";
  Printed([&] { add("x2", 1), add("x3", 1), add("z4", 1); });
  EXPECT_EQ(Printed([&] { cache.Clear(); }),
            "Clearing merged cache that contains (Location('file:///src/b.py'), 'x3')\n"
            "Clearing merged cache that contains (Location('file:///src/b.py'), 'x2')\n");
  // A key that is text stands for itself; what is looked for is its text form, quotes and all.
  Cache nameless(std::nullopt, -1, false);
  nameless.fLogIfInKeyRepr = "'k";
  EXPECT_EQ(Printed([&] { nameless.AddToCache("k", 1); }), "Setting key in None cache: k\n");
}

// The end of a value may call back in, and finds the entry gone and the index in order.
TEST_F(ScopeDependantCacheTest, ValuesMayStoreAsTheyEnd) {
  CScopeDependantCache<Text, std::shared_ptr<void>> cache("c", -1, false);
  cache._fEnableValidityChecks = true;
  const auto storing_at_its_end = [&](const Text& key) {
    return std::shared_ptr<void>(nullptr, [&cache, key, this](void*) {
      EXPECT_FALSE(cache.Contains(key));
      cache.AssertValidImpl();
      cache.AddToCache("after " + key, nullptr, {{kA, "f"}});
    });
  };
  for (const char* const key : {"invalidated", "trimmed", "cleared"}) {
    cache.AddToCache(key, storing_at_its_end(key), {{kA, "f"}, {kB, "g"}});
    if (TextView(key) == "invalidated") {
      cache.InvalidateScopes(kB, {"g"});
    } else if (TextView(key) == "trimmed") {
      cache.LookupInCache("after invalidated");
      cache.Trim(1);
    } else {
      cache.Clear();
    }
    EXPECT_THAT(cache.GetDependentKeys(kA, {"f"}), testing::Contains("after " + Text(key)));
    cache.AssertValidImpl();
  }
}

// A cache that keeps everything in plain sets and looks at all of it every time.
struct CNaiveCache {
  std::map<Text, std::pair<int, std::set<Text>>> entries;  // to the value and "file:scope"
  std::vector<Text> used;                                  // most recently used first

  void Use(const Text& key) {
    std::erase(used, key);
    used.insert(used.begin(), key);
  }
  void Remove(const std::set<Text>& keys) {
    std::erase_if(used, [&](const Text& key) { return keys.contains(key); });
    std::erase_if(entries, [&](const auto& each) { return keys.contains(each.first); });
  }
  void Trim(int64_t count) {
    for (auto i = std::max<int64_t>(std::ssize(used) - count, 1); i > 0 && !used.empty(); --i) {
      Remove({used.back()});
    }
  }
  std::set<Text> RestingOn(const Text& file, const TextSet& names) const {
    std::set<Text> keys;
    for (const auto& [key, entry] : entries) {
      for (const Text& scope : entry.second) {
        if (scope.starts_with(file + ":") &&
            (names.contains("*") || names.contains(scope.substr(file.size() + 1)))) {
          keys.insert(key);
        }
      }
    }
    return keys;
  }
};

TEST_F(ScopeDependantCacheTest, RandomStepsAsTheNaiveCacheDoesThem) {
  std::mt19937_64 random(fakes::TestSeed());
  const auto pick = [&](size_t below) { return static_cast<size_t>(random() % below); };
  const std::vector<Text> files{"a.py", "b.py", "c.py", "d.py"};
  const std::vector<Text> scopes{"f", "", "C", "C.m", "g", "*"};
  // The first ones are in much demand, so that some scopes have many entries and some have few.
  const auto any_of = [&](const std::vector<Text>& all) { return all[pick(pick(all.size()) + 1)]; };
  constexpr int64_t kSize = 80;
  Cache cache("c", kSize, false);
  CNaiveCache naive;
  bool trim_pending = false;
  for (int step = 0; step < 10000; ++step) {
    const Text key = std::to_string(pick(120));
    const size_t action = pick(100);
    SCOPED_TRACE("step " + std::to_string(step) + ", action " + std::to_string(action));
    if (action < 60) {
      std::pair<int, std::set<Text>> entry{static_cast<int>(pick(2)), {}};
      std::vector<CScopeRef> refs(pick(action == 0 ? 60 : 5));
      for (CScopeRef& ref : refs) {
        const Text file = any_of(files);
        ref = {fWorld.File(file), any_of(scopes)};
        entry.second.insert(file + ":" + ref.scope);
      }
      const bool is_new = !naive.entries.contains(key);
      cache.fModified = false;
      cache.AddToCache(key, entry.first, refs);
      ASSERT_EQ(cache.fModified, is_new || naive.entries[key] != entry);
      naive.entries[key] = entry;
      naive.Use(key);
      trim_pending |= is_new && std::ssize(naive.used) > kSize;
    } else if (action < 80) {
      Text expected = "unknown";
      if (naive.entries.contains(key)) {
        naive.Use(key);
        expected = std::to_string(naive.entries[key].first) + " " + Repr(naive.entries[key].second);
      }
      ASSERT_EQ(Look(cache, key), expected);
    } else if (action < 95) {
      const Text file = any_of(files);
      const TextSet names{any_of(scopes), any_of(scopes)};
      const std::set<Text> reached = naive.RestingOn(file, names);
      std::set<Text> dependent = reached;
      for (const auto& [each, entry] : naive.entries) {
        if (entry.second.contains(file + ":*")) {
          dependent.insert(each);
        }
      }
      ASSERT_EQ(cache.GetDependentKeys<std::set<Text>>(fWorld.File(file), names), dependent);
      if (pick(4) == 0) {
        cache.InvalidateScopes(fWorld.File(file), names);
        naive.Remove(reached);
      }
    } else if (action < 99) {
      ASSERT_EQ(fWorld.fLoop.RunIdle(), trim_pending ? 1U : 0U);
      if (std::exchange(trim_pending, false)) {
        naive.Trim(kSize * 3 / 4);
      }
    } else {
      const int64_t count = pick(5) == 0 ? 0 : static_cast<int64_t>(pick(110));
      cache.Trim(count);
      naive.Trim(count);
    }
    ASSERT_NO_THROW(cache.AssertValidImpl());
    ASSERT_EQ(cache.Keys(), naive.used);
  }
}

}  // namespace
}  // namespace pysource::scopeinfo
