// The containers, each against a naive model that random steps are done to as well.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "pysource/host/arena.h"
#include "pysource/host/fastaccess.h"
#include "pysource/host/idset.h"
#include "pysource/host/ordereddict.h"
#include "pysource/host/strdict.h"
#include "pysource/host/usageordereddict.h"
#include "tests/fakes/random.h"

namespace pysource {
namespace {

using fakes::CRandom;

// Pairs in order; a search is a walk.
class CModelDict {
 public:
  using Items = std::vector<std::pair<Text, int>>;

  Items::iterator Find(TextView key) {
    return std::find_if(items.begin(), items.end(), [&](auto& item) { return item.first == key; });
  }
  std::optional<int> Value(TextView key) {
    const auto found = Find(key);
    return found == items.end() ? std::nullopt : std::optional(found->second);
  }
  std::optional<int> Pop(TextView key) {
    const auto value = Value(key);
    std::erase_if(items, [&](const auto& item) { return item.first == key; });
    return value;
  }
  void PutFirst(TextView key, int value) {
    Pop(key);
    items.emplace(items.begin(), key, value);
  }
  void Set(TextView key, int value) {
    const auto found = Find(key);
    if (found == items.end()) {
      items.emplace_back(key, value);
    } else {
      found->second = value;
    }
  }

  Items items;
};

template <class Range>
CModelDict::Items ItemsOf(const Range& range) {
  CModelDict::Items items;
  for (const auto& [key, value] : range) {
    items.emplace_back(key, value);
  }
  return items;
}

// Of few values, so that different keys meet in one hash.
struct CPoorHash {
  using is_transparent = void;
  size_t operator()(TextView key) const { return HashBytes(key) % 5; }
};

template <class T>
std::optional<int> OrNone(const T* value) {
  return value == nullptr ? std::nullopt : std::optional<int>(*value);
}

// Few keys, so that dictionaries grow over the size from which on they have a table, and shrink
// back.
Text RandomKey(CRandom& random) { return "key" + std::to_string(random.Below(24)); }

TEST(InsertionOrderedDict, DoesWhatAListOfPairsDoes) {
  CRandom random;
  CInsertionOrderedDict<Text, int, CPoorHash> dict;
  CModelDict model;
  for (int step = 0; step < 5000; ++step) {
    const Text key = RandomKey(random);
    switch (random.Below(6)) {
      case 0:
      case 1:
        EXPECT_EQ(dict.Pop(TextView(key)), model.Pop(key));
        break;
      case 2:
        dict.GetOrMake(key) += 1;
        model.Set(key, model.Value(key).value_or(0) + 1);
        break;
      case 3: {
        auto copy = dict;
        copy.Set("another", 0);
        EXPECT_FALSE(copy == dict);
        copy.Erase(TextView("another"));
        EXPECT_TRUE(copy == dict);
        dict = random.OneIn(2) ? copy : std::move(copy);
        break;
      }
      default:
        EXPECT_EQ(dict.Set(key, step), step);
        model.Set(key, step);
    }
    ASSERT_EQ(ItemsOf(dict), model.items);
    EXPECT_EQ(OrNone(dict.Find(TextView(key))), model.Value(key));
  }
}

TEST(UsageOrderedDict, DoesWhatAListOfPairsDoes) {
  CRandom random;
  CUsageOrderedDict<Text, int, TextHash> dict;
  CModelDict model;  // the most recently used first
  for (int step = 0; step < 5000; ++step) {
    const Text key = RandomKey(random);
    const auto slot = dict.SlotOf(key);
    ASSERT_EQ(slot != dict.kNoSlot, model.Value(key).has_value());
    switch (random.Below(10)) {
      case 0:
        EXPECT_EQ(OrNone(dict.Get(TextView(key))), model.Value(key));
        if (slot != dict.kNoSlot) {
          model.PutFirst(key, *model.Value(key));
        }
        break;
      case 1:
        EXPECT_EQ(OrNone(dict.Peek(TextView(key))), model.Value(key));
        break;
      case 2:
        EXPECT_EQ(dict.pop(TextView(key)), model.Pop(key));
        break;
      case 3: {
        const std::vector<Text> keys{key, RandomKey(random), "unknown"};
        dict.DifferenceUpdate(keys);
        std::for_each(keys.begin(), keys.end(), [&](const Text& each) { model.Pop(each); });
        break;
      }
      case 4:
      case 5:
        dict.Set(key, step, false);  // a new one enters where it is the first to be given up
        model.Set(key, step);
        break;
      case 6:
        if (slot != dict.kNoSlot && random.OneIn(2)) {
          EXPECT_EQ(dict.TakeAt(slot).second, *model.Pop(key));
          EXPECT_FALSE(dict.IsLive(slot));
        } else if (slot != dict.kNoSlot) {
          dict.MarkUsed(slot);
          model.PutFirst(key, *model.Value(key));
        } else {
          EXPECT_EQ(dict.At(dict.Add(key, step)).first, key);
          model.PutFirst(key, step);
        }
        break;
      default:
        dict.Set(key, step);
        model.PutFirst(key, step);
    }
    ASSERT_EQ(ItemsOf(dict), model.items);
    CModelDict::Items reversed;
    for (auto it = dict.rbegin(); it != dict.rend(); ++it) {
      reversed.emplace(reversed.begin(), it->first, it->second);
    }
    ASSERT_EQ(reversed, model.items);
    EXPECT_EQ(dict.length(), model.items.size());
  }
}

// What a value's end sets off may look at the dictionary that it was just in, and change it.
TEST(OrderedDicts, AreInOrderWhenAValueEnds) {
  CUsageOrderedDict<int, std::shared_ptr<void>> dict;
  std::vector<size_t> sizes;
  const auto value = [&] {
    return std::shared_ptr<void>(nullptr, [&](void*) {
      sizes.push_back(dict.size());
      dict.Set(100 + static_cast<int>(sizes.size()), nullptr);
    });
  };
  for (int key = 0; key < 4; ++key) {
    dict.Set(key, value());
  }
  dict.Set(0, nullptr);
  dict.pop(1);
  dict.TakeAt(dict.SlotOf(2));
  dict.clear();
  EXPECT_THAT(sizes, testing::ElementsAre(4, 4, 4, 0));
}

TEST(IdSet, IsASet) {
  CRandom random;
  CIdSet ids;
  std::set<uint32_t> model;
  for (int step = 0; step < 5000; ++step) {
    const auto id = static_cast<uint32_t>(random.Below(60)) << 20;
    if (random.Below(60) < (step % 1000 < 500 ? 30U : 45U)) {  // it grows and shrinks in turn
      EXPECT_EQ(ids.Add(id), model.insert(id).second);
    } else {
      EXPECT_EQ(ids.Erase(id), model.erase(id) == 1);
    }
    const auto asked = static_cast<uint32_t>(random.Below(60)) << 20;
    ASSERT_EQ(ids.Contains(asked), model.contains(asked));
    ASSERT_EQ(std::set<uint32_t>(ids.begin(), ids.end()), model);
    ASSERT_EQ(ids.size(), model.size());
  }
}

TEST(BytesTokenizer, NumbersInOrderOfFirstUseRoundAfterRound) {
  CRandom random;
  CBytesTokenizer tokens;
  for (int round = 0; round < 50; ++round) {
    std::map<Bytes, uint32_t> model;
    for (size_t left = random.Below(400); left != 0; --left) {
      // Short ones in great variety, long ones that differ in their length and at an end only.
      const Bytes token = random.OneIn(3) ? Bytes(random.Below(40), 'a') + random.Text("b", 2)
                                          : random.Text(TextView("ab.\0", 4), 9);
      const auto size = static_cast<uint32_t>(model.size());
      ASSERT_EQ(tokens.GetTokenIndex(token), model.emplace(token, size).first->second);
    }
    ASSERT_EQ(tokens.size(), model.size());
    for (const auto& [token, index] : model) {
      ASSERT_EQ(tokens.Token(index), token);
    }
    tokens.clear();
    ASSERT_TRUE(tokens.empty());
  }
}

TEST(Arena, KeepsWhatWasPutIntoItUntilTheLastHandleGoes) {
  CRandom random;
  auto arena = std::make_unique<CArena>();
  std::vector<std::pair<TextView, Text>> stored;
  size_t total = 0;
  for (int step = 0; step < 300; ++step) {
    const size_t alignment = size_t{1} << random.Below(5);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(arena->Allocate(1, alignment)) % alignment, 0U);
    const Text text = random.Text("abc", random.OneIn(20) ? 5000 : 30);
    stored.emplace_back(arena->Store(text), text);
    total += text.size() + 1;
  }
  EXPECT_GE(arena->MemoryUse(), total);
  EXPECT_LE(arena->MemoryUse(), 3 * total + 1024);
  const CArena sharer = *arena;
  arena.reset();
  for (const auto& [view, text] : stored) {
    ASSERT_EQ(view, text);
  }
  // A size that is known beforehand is one block.
  CArena exact(20);
  const size_t before = exact.MemoryUse();
  exact.Store("0123456789");
  exact.Store("0123456789");
  EXPECT_EQ(exact.MemoryUse(), before);
}

TEST(StrDict, DoesWhatAListOfPairsDoes) {
  CRandom random;
  for (const size_t name_count : {5U, 20U, 200U}) {
    CStrDict dict;
    std::vector<std::pair<Text, Bytes>> model;
    std::vector<std::pair<BytesView, Bytes>> held;  // values that were looked up, and their text
    // A copy of it, taken now and then: what is done to the one is not seen in the other.
    CStrDict copy;
    auto copy_model = model;
    auto copy_held = held;
    const auto equal = [](const CStrDict& a, const auto& b) {
      return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                        [](const CStrDict::Item& item, const auto& pair) {
                          return item.first == pair.first && item.second == pair.second;
                        });
    };
    for (size_t step = 0; step < 1500; ++step) {
      // Mostly ascending, as from a decoder.
      const size_t number = (random.OneIn(10) ? random.Below(name_count) : step / 7) % name_count;
      const Text name = "n" + std::to_string(1000 + number);
      const auto at = std::find_if(model.begin(), model.end(),
                                   [&](const auto& item) { return item.first == name; });
      const auto value = dict.Get(name);
      ASSERT_EQ(value.has_value(), at != model.end()) << name;
      if (value) {
        ASSERT_EQ(*value, at->second);
        held.emplace_back(*value, at->second);
      }
      if (random.OneIn(10)) {
        EXPECT_EQ(dict.Erase(name), value.has_value());
        if (value) {
          model.erase(at);
        }
      } else if (random.OneIn(100)) {
        held.clear();
        dict = CStrDict(dict);
      } else if (random.OneIn(20)) {
        copy = dict;
        copy_model = model;
        copy_held.clear();
      } else if (random.OneIn(20)) {
        std::swap(copy, dict);
        std::swap(copy_model, model);
        std::swap(copy_held, held);
      } else {
        // A value may come out of the dictionary itself.
        const BytesView stored = random.OneIn(4) && !dict.empty()
                                     ? dict.begin()[random.Below(dict.size())].second
                                     : BytesView(name).substr(random.Below(3));
        if (value) {
          at->second = stored;
        } else {
          model.emplace_back(name, stored);
        }
        dict.Set(name, stored);
      }
      ASSERT_TRUE(equal(dict, model));
      ASSERT_TRUE(equal(copy, copy_model));
      ASSERT_TRUE(!dict.IsAscending() || std::is_sorted(model.begin(), model.end()));
    }
    held.insert(held.end(), copy_held.begin(), copy_held.end());
    for (const auto& [view, bytes] : held) {
      ASSERT_EQ(view, bytes);
    }
  }
}

TEST(StrDict, EqualityIsThatOfTheItemsAndReplacingTheSameValueTakesNoMemory) {
  const CStrDict ab{{"a", "1"}, {"b", "2"}};
  EXPECT_TRUE(ab == (CStrDict{{"b", "2"}, {"a", "1"}}));
  EXPECT_FALSE(ab == (CStrDict{{"a", "1"}, {"b", "3"}}));
  EXPECT_FALSE(ab == (CStrDict{{"a", "1"}, {"c", "2"}}));
  EXPECT_FALSE(ab == (CStrDict{{"a", "1"}}));
  const CArena arena(64);
  CStrDict dict(arena, 1);
  for (int i = 0; i < 1000; ++i) {
    dict.Set("name", "value");
  }
  EXPECT_LE(arena.MemoryUse(), 128U);
  EXPECT_EQ(dict.Get("name"), "value");
}

}  // namespace
}  // namespace pysource
