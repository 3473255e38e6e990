#include "pysource/host/strdict.h"

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

#include "pysource/host/repr.h"
#include "tests/fakes/world.h"

namespace pysource {
namespace {

// The dictionary beside a plain list of pairs, through every way of looking up: in ascending order,
// few names out of order, many, and all of that in copies and after moves.
TEST(StrDict, RandomStepsAsAListOfPairsDoesThem) {
  std::mt19937_64 random(fakes::TestSeed());
  const auto pick = [&](size_t below) { return static_cast<size_t>(random() % below); };
  for (int round = 0; round < 300; ++round) {
    CStrDict dict;
    std::vector<std::pair<Text, Bytes>> list;
    const bool ascending_first = pick(2) == 0;
    const size_t names = 1 + pick(pick(2) == 0 ? 8 : 60);
    for (size_t step = 0; step < 80; ++step) {
      SCOPED_TRACE("round " + std::to_string(round) + ", step " + std::to_string(step));
      const size_t number = ascending_first && step < 30 ? step : pick(names);
      const Text name = Text(number % 10, 'x') + std::to_string(1000 + number);
      const auto at = std::find_if(list.begin(), list.end(),
                                   [&](const auto& item) { return item.first == name; });
      if (const size_t action = pick(10); action < 6) {
        const Bytes value(pick(30), static_cast<char>('a' + step % 26));
        dict.Set(name, value);
        at == list.end() ? list.emplace_back(name, value).second : at->second = value;
      } else if (action < 8) {
        ASSERT_EQ(dict.Erase(name), at != list.end());
        if (at != list.end()) {
          list.erase(at);
        }
      } else if (action == 8) {
        CStrDict copy = dict;
        ASSERT_EQ(copy, dict);
        copy.Set("only in the copy", "");
        ASSERT_FALSE(copy == dict);
        copy.Erase("only in the copy");
        dict = CStrDict(std::move(copy));  // the memory of the old one goes
      } else {
        ASSERT_EQ(dict.Contains(name), at != list.end());
        ASSERT_EQ(dict.Get(name),
                  at == list.end() ? std::nullopt : std::optional<BytesView>(at->second));
      }
      ASSERT_TRUE(std::equal(dict.begin(), dict.end(), list.begin(), list.end(),
                             [](const CStrDict::Item& item, const auto& pair) {
                               return item.first == pair.first && item.second == pair.second;
                             }))
          << Repr(dict);
      ASSERT_TRUE(!dict.IsAscending() || std::is_sorted(list.begin(), list.end()));
    }
  }
}

TEST(StrDict, ViewsStayGoodWhileOthersAreStored) {
  CStrDict dict{{"a", "first"}};
  const TextView name = dict.begin()->first;
  const BytesView value = *dict.Get("a");
  for (int i = 0; i < 2000; ++i) {
    dict.Set("a", dict.begin()->second == "first" ? "second" : *dict.Get("a"));
    dict.Set(std::to_string(i), Bytes(static_cast<size_t>(i % 97), 'x'));
  }
  EXPECT_EQ(name, "a");
  EXPECT_EQ(value, "first");
}

}  // namespace
}  // namespace pysource
