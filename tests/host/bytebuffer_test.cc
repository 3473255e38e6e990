// Reading messages, good ones and hostile ones. The form is put together here by hand; that the
// writer's form is the reader's is the business of the serializer's tests.

#include "pysource/host/bytebuffer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <utility>
#include <vector>

#include "pysource/host/errors.h"
#include "tests/fakes/random.h"

namespace pysource {
namespace {

Bytes Int(uint64_t value) {
  if (value < 128) {
    return Bytes(1, static_cast<char>(value + 128));
  }
  Bytes bytes;
  for (; value != 0; value >>= 6) {
    bytes += static_cast<char>((value & 63) + (value >> 6 != 0 ? 0x40 : 0xC0));
  }
  return bytes;
}

Bytes Table(const std::vector<Bytes>& tokens) {
  Bytes bytes = Int(tokens.size());
  for (const Bytes& token : tokens) {
    bytes += Int(token.size()) + token;
  }
  return bytes;
}

Bytes Refs(const std::vector<uint64_t>& tokens) {
  Bytes bytes;
  for (size_t i = 0; i < tokens.size(); ++i) {
    bytes += Int(tokens[i] * 2 + (i + 1 == tokens.size() ? 1 : 0));
  }
  return bytes;
}

// Reads what `read` reads of the message, whose token table is `table`.
template <class Read>
auto Reading(const Bytes& message, Read read) {
  CEncodedByteBufferReader reader;
  reader.SetStr(message);
  return read(reader);
}
uint64_t ReadInt(const Bytes& form) {
  const Bytes message = Table({}) + form;
  return Reading(message, [](auto& reader) { return reader.ReadInt(); });
}

TEST(Integers, AreReadInEveryForm) {
  const std::pair<uint64_t, Bytes> rows[] = {
      {0, "\x80"},
      {127, "\xFF"},
      {128, "\x40\xC2"},
      {129, "\x41\xC2"},
      {300, "\x6C\xC4"},
      {4096, "\x40\x40\xC1"},
      {std::numeric_limits<uint64_t>::max(), Bytes(10, '\x7F') + '\xCF'},
      {1, "\x41\xC0"},                                  // longer than needed
      {5, "\x45" + Bytes(40, '\x40') + "\xC0"},         // much longer
      {uint64_t{1} << 63, Bytes(10, '\x40') + "\xC8"},  // the top bit alone
  };
  for (const auto& [value, form] : rows) {
    EXPECT_EQ(ReadInt(form), value) << value;
  }
  fakes::CRandom random;
  for (int step = 0; step < 2000; ++step) {
    const uint64_t value = random.Below(std::numeric_limits<size_t>::max()) >> random.Below(64);
    ASSERT_EQ(ReadInt(Int(value)), value);
  }
  for (const Bytes& broken :
       {Bytes(), Bytes("\x40"), Bytes("\x3F"), Bytes("\x40\x3F\xC0"), Bytes("\0", 1),
        Bytes(10, '\x7F') + '\xDF', Bytes(11, '\x40') + "\xC1"}) {
    EXPECT_THROW(ReadInt(broken), CValueError);
  }
}

TEST(Messages, StringsAndDictionaries) {
  // Two dictionaries; "x" comes twice in the second, and the later value is the one that counts.
  const Bytes message = Table({"a", ".", "x", ""}) + Refs({0, 1, 0}) + Int(1) + Refs({0}) +
                        Refs({3}) + Int(3) + Refs({2}) + Refs({0}) + Refs({0}) + Refs({1}) +
                        Refs({2}) + Refs({1, 1});
  CEncodedByteBufferReader reader;
  reader.SetStr(message);
  EXPECT_EQ(reader.ReadTokenizedStr(), "a.a");
  CStrDict first{{"old", "1"}, {"a", "2"}};
  reader.ReadStrDictInto(first, true);
  EXPECT_TRUE(first == (CStrDict{{"old", "1"}, {"a", ""}}));
  CStrDict second;
  reader.ReadStrDictInto(second, true);
  EXPECT_TRUE(second == (CStrDict{{"x", ".."}, {"a", "."}}));
  EXPECT_THROW(reader.ReadInt(), CValueError);

  // The same into a batch: one block of memory for all of it, again and again.
  CStrDictBatch batch;
  for (int round = 0; round < 2; ++round) {
    batch.Clear();
    reader.SetStr(message);
    reader.ReadTokenizedStrInto(batch);
    reader.ReadStrDictInto(batch, true);
    reader.ReadStrDictInto(batch, true);
    BytesView plain;
    const CArena arena = batch.Finish(&plain);
    const CStrDict dicts[] = {batch.TakeNext(arena), batch.TakeNext(arena)};
    EXPECT_EQ(plain, "a.a");
    EXPECT_TRUE(dicts[0] == (CStrDict{{"a", ""}}));
    EXPECT_TRUE(dicts[1] == second);
    EXPECT_EQ(dicts[1].begin()->first, "x");  // at the place of the first one
    EXPECT_LE(arena.MemoryUse(), 4 * sizeof(CStrDict::Item) + message.size() + 64);
  }
}

TEST(Messages, BrokenOnesAreValueErrors) {
  const auto read_int = [](CEncodedByteBufferReader& reader) { reader.ReadInt(); };
  const auto read_str = [](CEncodedByteBufferReader& reader) { reader.ReadTokenizedStr(); };
  const auto read_dict = [](CEncodedByteBufferReader& reader) {
    CStrDict dict{{"kept", "1"}};
    try {
      reader.ReadStrDictInto(dict, true);
    } catch (...) {
      EXPECT_EQ(dict.size(), 1U);  // nothing of a broken one
      throw;
    }
  };
  const Bytes megabyte(size_t{1} << 20, 'x');
  struct {
    const char* why;
    Bytes message;
    std::function<void(CEncodedByteBufferReader&)> read;
  } const rows[] = {
      {"an empty message", "", read_int},
      {"more tokens than bytes", Int(5) + Int(0) + Int(0), read_int},
      {"a count that would take all memory", Int(uint64_t{1} << 60), read_int},
      {"a token that is cut short", Int(1) + Int(3) + "ab", read_int},
      {"a token of no possible size", Int(1) + Int(std::numeric_limits<uint64_t>::max()), read_int},
      {"a reference to no token", Table({"a"}) + Int(1 * 2 + 1), read_str},
      {"a reference beyond all tokens", Table({"a"}) + Int(~uint64_t{0}), read_str},
      {"a string without an end", Table({"a"}) + Int(0) + Int(0), read_str},
      {"more items than bytes", Table({"a"}) + Int(2) + Refs({0}) + Refs({0}) + Refs({0}),
       read_dict},
      {"a name that is not UTF-8", Table({"\xFF"}) + Int(1) + Refs({0}) + Refs({0}), read_dict},
      {"a name that is half a letter", Table({"\xC3"}) + Int(1) + Refs({0}) + Refs({0}), read_dict},
      {"strings out of proportion", Table({megabyte}) + Refs(std::vector<uint64_t>(200, 0)),
       read_str},
  };
  for (const auto& row : rows) {
    EXPECT_THROW(Reading(row.message, row.read), CValueError) << row.why;
  }
  // As bytes such a name is good.
  const Bytes message = Table({"\xFF"}) + Int(1) + Refs({0}) + Refs({0});
  CStrDict dict;
  Reading(message, [&](auto& reader) { reader.ReadStrDictInto(dict, false); });
  EXPECT_EQ(dict.Get("\xFF"), "\xFF");

  const Bytes many = Table({}) + Bytes(5, '\x80');
  CStrDictBatch batch;
  EXPECT_THROW(Reading(many,
                       [&](auto& reader) {
                         for (int i = 0; i < 5; ++i) {
                           reader.ReadStrDictInto(batch, true);
                         }
                       }),
               CValueError);
}

TEST(Messages, CutOrChangedAnywhereNeverDoMoreThanThrow) {
  const auto read_all = [](CEncodedByteBufferReader& reader) {
    CStrDict dict;
    reader.ReadTokenizedStr();
    reader.ReadStrDictInto(dict, true);
    reader.ReadInt();
  };
  const Bytes good = Table({"a", "name", Bytes(200, 'v')}) + Refs({0, 1}) + Int(2) + Refs({1}) +
                     Refs({2}) + Refs({0}) + Refs({2, 2}) + Int(1000);
  Reading(good, read_all);
  for (size_t size = 0; size < good.size(); ++size) {
    EXPECT_THROW(Reading(good.substr(0, size), read_all), CValueError) << size;
  }
  fakes::CRandom random;
  int thrown = 0;
  for (int step = 0; step < 20000; ++step) {
    Bytes changed = good;
    for (size_t left = random.Below(4) + 1; left != 0; --left) {
      changed[random.Below(changed.size())] = static_cast<char>(random.Below(256));
    }
    try {
      Reading(changed, read_all);
    } catch (const CValueError&) {
      ++thrown;
    }
  }
  EXPECT_GT(thrown, 1000);
}

}  // namespace
}  // namespace pysource
