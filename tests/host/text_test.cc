// Locations, text forms, logs and the small functions over text.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <unordered_set>
#include <utility>
#include <vector>

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/host/fastaccess.h"
#include "pysource/host/location.h"
#include "pysource/host/logger.h"
#include "pysource/host/repr.h"
#include "pysource/host/strdict.h"
#include "pysource/host/strutils.h"

namespace pysource {
namespace {

using testing::ElementsAre;

// A host's own cache: knows its files, and spells a URL in one way only.
class CVirtualLocation : public CResourceLocation {
 public:
  using CResourceLocation::CResourceLocation;
  bool DoesResourceExist() const override { return fUrl == "db:there"; }
  bool IsAsyncInspected() const override { return true; }
};
class CVirtualLocationCache : public CLocationCache {
 protected:
  std::unique_ptr<CResourceLocation> MakeLocation(TextView url) const override {
    while (url.ends_with('/')) {
      url.remove_suffix(1);
    }
    return std::make_unique<CVirtualLocation>(Text(url));
  }
};

TEST(Location, IsOneObjectForAUrlAndEqualByUrl) {
  CLocationCache cache;
  const Loc a = cache.GetLocation("file:///a.py");
  const Loc b = cache.GetLocation("file:///b.py");
  EXPECT_TRUE(LocationsEqual(a, cache.GetLocation("file:///a.py")));
  EXPECT_TRUE(LocationsEqual(cache.GetBuiltinLoc(), cache.GetBuiltinLoc()));
  EXPECT_EQ(cache.Size(), 3U);

  const CResourceLocation twin("file:///a.py");
  EXPECT_FALSE(LocationsEqual(a, &twin));
  EXPECT_EQ(a, Loc(&twin));
  EXPECT_EQ(a.Hash(), Loc(&twin).Hash());
  EXPECT_NE(a, b);
  EXPECT_EQ((std::unordered_set<Loc>{a, &twin, b}.size()), 2U);

  EXPECT_LT(a, b);
  EXPECT_FALSE(b < a || a < Loc(&twin));
  EXPECT_EQ(Loc(), Loc(nullptr));
  EXPECT_NE(a, Loc());
  EXPECT_THROW(static_cast<void>(a < Loc()), CTypeError);
  EXPECT_THROW(static_cast<void>(Loc() < a), CTypeError);
  EXPECT_EQ(a.Repr() + Loc().Repr(), "Location('file:///a.py')None");
}

TEST(Location, NamesPathsAndAsksTheFileSystemOrTheHost) {
  const Text here = std::filesystem::current_path().string();
  const std::pair<Text, Text> rows[] = {{"/a/b.py", "/a/b.py"},
                                        {"/a/./x/../b.py", "/a/b.py"},
                                        {"a b%.py", here + "/a b%.py"},
                                        {"/a//b/", "/a/b"},
                                        {"/", "/"},
                                        {"/a/..", "/"},
                                        {"../x", UrlForPath(here + "/../x").substr(7)}};
  CLocationCache cache;
  for (const auto& [path, expected] : rows) {
    EXPECT_EQ(UrlForPath(path), "file://" + expected) << path;
    EXPECT_EQ(PathForLocation(cache.GetLocationForPath(path)), expected) << path;
  }
  EXPECT_EQ(PathForLocation(cache.GetBuiltinLoc()), std::nullopt);
  EXPECT_EQ(PathForLocation(nullptr), std::nullopt);
  EXPECT_TRUE(cache.GetLocationForPath(".")->DoesResourceExist());
  EXPECT_FALSE(cache.GetLocationForPath("no such file")->DoesResourceExist());
  EXPECT_FALSE(cache.GetBuiltinLoc()->DoesResourceExist());
  EXPECT_FALSE(IsAsyncInspectLocation(cache.GetBuiltinLoc()));

  CVirtualLocationCache virtual_cache;
  const Loc there = virtual_cache.GetLocation("db:there");
  EXPECT_TRUE(there->DoesResourceExist() && IsAsyncInspectLocation(there));
  EXPECT_TRUE(LocationsEqual(virtual_cache.GetLocation("db:there//"), there));
}

TEST(Repr, OfEachKindOfValue) {
  const std::optional<Text> absent;
  const std::pair<Text, Text> rows[] = {
      {Repr(Text("a.b")), "'a.b'"},
      {Repr("it's \\ \n\t\r\x01\x7f \xC3\xA9"), "'it\\'s \\\\ \\n\\t\\r\\x01\\x7f \xC3\xA9'"},
      {Repr(true) + Repr(false), "TrueFalse"},
      {Repr(-12) + Repr(size_t{7}), "-127"},
      {Repr(1.0), "1.0"},
      {Repr(0.0), "0.0"},
      {Repr(1700000000.0), "1700000000.0"},  // a time of modification
      {Repr(1700000000.25), "1700000000.25"},
      {Repr(1e16), "1e+16"},
      {Repr(0.0001), "0.0001"},
      {Repr(0.00001), "1e-05"},
      {Repr(std::numeric_limits<double>::infinity()), "inf"},
      {Repr(std::numeric_limits<double>::quiet_NaN()), "nan"},
      {Repr(absent) + Repr(std::nullopt) + Repr(Loc()), "NoneNoneNone"},
      {Repr(std::shared_ptr<int>()) + Repr(std::make_shared<int>(3)), "None3"},
      {Repr(std::pair(Text("a"), 1.5)), "('a', 1.5)"},
      {Repr(std::vector<Text>{}) + Repr(std::vector<Text>{"a", "b"}), "[]['a', 'b']"},
      {Repr(std::set<int>{}) + Repr(std::set<int>{1, 2}), "set(){1, 2}"},
      {Repr(std::map<Text, std::vector<int>>{{"a", {1}}, {"b", {}}}), "{'a': [1], 'b': []}"},
      {Repr(CStrDict{{"b", "1"}, {"a", "2"}}), "{'b': '1', 'a': '2'}"},
  };
  for (const auto& [text, expected] : rows) {
    EXPECT_EQ(text, expected);
  }
}

TEST(Messages, AreFilledIn) {
  EXPECT_EQ(FormatPercent("%s has %r of %d, 100%%", {"f", Text("x"), 3}), "f has 'x' of 3, 100%");
  EXPECT_EQ(FormatPercent("%s and %s, %x %", {Text("one")}), "one and %s, %x %");
  EXPECT_EQ(FormatPercent("%r", {std::vector<Text>{"a"}, 2}), "['a']");
  EXPECT_EQ(FormatPercent("%s", {"%s"}), "%s");  // what is filled in is not read again
  EXPECT_EQ(FormatBraces("{}: {} {x} {}", {"a", true}), "a: True {x} {}");
}

struct CCostly {
  int* count;
  Text Repr() const {
    ++*count;
    return "costly";
  }
};

TEST(Logs, OneCostsNothingWhileItIsClosedAndOneAlwaysSpeaks) {
  int count = 0;
  CLogger log("InfoCache");
  log("%r %s", CCostly{&count}, "x");
  EXPECT_EQ(count, 0);
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::tmpfile(), &std::fclose);
  log.fOutputFile = file.get();
  log("%r %s", CCostly{&count}, "x");
  log("100%%");
  log.fOutputFile = nullptr;
  log("%r", CCostly{&count});
  EXPECT_EQ(count, 1);
  std::rewind(file.get());
  std::array<char, 100> text{};
  EXPECT_EQ(TextView(text.data(), std::fread(text.data(), 1, text.size(), file.get())),
            "InfoCache: costly x\nInfoCache: 100%\n");

  Text line;
  SetLineSink([&line](TextView each) { line = each; });
  CriticalLog("no entry for %r: %s", Text("a.b"), 3);
  SetLineSink(nullptr);
  EXPECT_EQ(line, "no entry for 'a.b': 3");
}

TEST(Assertions, ThrowUnlessTheyAreOff) {
  ASSERT_TRUE(AssertionsActive());
  Assert(true, "holds");
  try {
    Assert(false, "the text");
    ADD_FAILURE() << "no assertion";
  } catch (const CAssertionError& error) {
    EXPECT_STREQ(error.what(), "the text");
    EXPECT_THAT(error.Where(), testing::HasSubstr("text_test.cc:"));
  }
  EXPECT_TRUE(SetAssertionsActive(false));
  EXPECT_NO_THROW(Assert(false));
  EXPECT_FALSE(SetAssertionsActive(true));
  EXPECT_THROW(Assert(false), CAssertionError);
}

TEST(StrUtils, Utf8IsWellFormedUpToTheEdges) {
  const BytesView good[] = {"",
                            "a\x7F",
                            "\xC2\x80",
                            "\xDF\xBF",
                            "\xE0\xA0\x80",
                            "\xED\x9F\xBF",
                            "\xEE\x80\x80",
                            "\xEF\xBF\xBF",
                            "\xF0\x90\x80\x80",
                            "\xF4\x8F\xBF\xBF"};
  const BytesView bad[] = {"\x80",
                           "\xC1\xBF",
                           "\xC2",
                           "\xC2\x7F",
                           "\xC2\xC0",
                           "\xE0\x9F\xBF",
                           "\xE1\x80",
                           "\xE1\x80\xC0",
                           "\xED\xA0\x80",
                           "\xF0\x8F\xBF\xBF",
                           "\xF1\x80\x80",
                           "\xF1\x80\x80\x7F",
                           "\xF4\x90\x80\x80",
                           "\xF5\x80\x80\x80",
                           "\xFF"};
  // Wherever it stands: eight bytes at a time are looked at while they are plain.
  for (const Text& before : {Text(), Text("1234567"), Text("12345678"),
                             Text("\xC2\x80"
                                  "34567890")}) {
    for (const TextView after : {"", "x", "123456789"}) {
      for (const BytesView each : good) {
        EXPECT_TRUE(IsUtf8(before + Text(each) + Text(after))) << EncodeUrl(each);
      }
      for (const BytesView each : bad) {
        EXPECT_FALSE(IsUtf8(before + Text(each) + Text(after))) << EncodeUrl(each);
      }
    }
  }
}

TEST(StrUtils, EdgesOfTextAndBytes) {
  EXPECT_EQ(EncodeUrl("file:///a-b_c.~Z09"), "file:///a-b_c.~Z09");
  EXPECT_EQ(EncodeUrl(TextView("; (\xC3\0%", 6)), "%3B%20%28%C3%00%25");
  EXPECT_EQ(OrdAt("\xFF"
                  "a",
                  -2),
            255);
  EXPECT_THROW(OrdAt("ab", -3), CValueError);
  EXPECT_THROW(OrdAt("ab", 2), CValueError);
  EXPECT_EQ(GetOneByte("ab", 1), 'b');
  EXPECT_THROW(GetOneByte("ab", std::numeric_limits<size_t>::max()), CValueError);
  EXPECT_EQ(Text(AsStr("abcd", 1, 3)) + Text(AsStr("ab", 1, 9)), "bcb");
  EXPECT_EQ(Text(AsStr("abcd", 5, 9)) + Text(AsStr("abcd", 3, 2)), "");
}

TEST(FastAccess, EdgesOfTimesBitsAndStrings) {
  // The clock has steps: among so many looks at it some see the very time that they ask about.
  bool all = true;
  for (int i = 0; i < 100000; ++i) {
    all = OutOfTime(GetNowTime()) && all;
  }
  EXPECT_TRUE(all);
  EXPECT_FALSE(OutOfTime(GetNowTime() + 1000));
  EXPECT_GT(GetNowTime(), 1.6e9);

  const double negative = DoubleValueForPyIntBits(std::numeric_limits<int64_t>::min());
  EXPECT_EQ(ULongLongValueForDoubleBits(negative), uint64_t{1} << 63);
  EXPECT_EQ(DoubleValueForULongLongBits(0x3FF0000000000000U), 1.0);
  std::set<int> set{1, 2};
  EXPECT_FALSE(PySet_InplaceOr(set, std::vector<int>{2, 1}));
  EXPECT_TRUE(PySet_InplaceOr(set, std::set<int>{2, 3}));
  EXPECT_THAT(set, ElementsAre(1, 2, 3));
  EXPECT_TRUE(IsDigit('7') && IsAlnum('z') && !IsDigit('a') && !IsAlnum('_') && !IsAlnum('\xE9'));

  EXPECT_TRUE(StrInStr("b", "abc") && StrInStr("", "") && !StrInStr("d", "abc"));
  EXPECT_FALSE(StrInStr("b", TextView("a\0b", 3)));  // ends at the first NUL
  EXPECT_TRUE(StrInStr(TextView("a\0x", 3), "ab"));
  EXPECT_THROW(StrInStr(std::nullopt, "a"), CTypeError);
  EXPECT_THROW(StrInStr("a", std::nullopt), CTypeError);
}

}  // namespace
}  // namespace pysource
