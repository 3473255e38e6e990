#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"
#include "pysource/host/symbolinfo/kinds.h"

#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>

#include "fuzz/fuzz_bodies.h"
#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/host/repr.h"
#include "tests/fakes/random.h"
#include "tests/fakes/world.h"
#include "tests/serialized/naivecodec.h"

namespace pysource::scopeinfo {
namespace {

// "81 'ab' | 80": hex bytes and quoted text; a bar and white space are for the reader only.
Bytes B(TextView text) {
  Bytes bytes;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\'') {
      const size_t end = text.find('\'', i + 1);
      bytes += text.substr(i + 1, end - i - 1);
      i = end;
    } else if (text[i] != ' ' && text[i] != '|') {
      bytes += static_cast<char>(std::stoi(Text(text.substr(i++, 2)), nullptr, 16));
    }
  }
  return bytes;
}

Bytes Times(size_t count, const Bytes& bytes) {
  Bytes result;
  while (count-- > 0) {
    result += bytes;
  }
  return result;
}

class ScopeInfoSerializerTest : public fakes::CWorldTest {
 protected:
  CScopeInfoPtr Read(BytesView message) {
    return fSerializer.ReadScopeInfo(kKey, 2.5, true, message);
  }

  static Text Dump(const CScopeInfoPtr& info) {
    return info == nullptr
               ? "null"
               : FormatBraces("{} {} {} {} {}{}",
                              {Repr(info->scope_ibytes), info->type_equivs, info->_domains,
                               info->inst_type_equivs, info->_inst_domains,
                               TextView(info->does_not_exist ? " missing" : "")});
  }

  CScopeInfoPtr Make(const CNaiveRecord& record) const {
    auto info = std::make_shared<CScopeInfo>(kKey, record.ibytes, 2.5, true, record.does_not_exist);
    std::array<CStrDict, 4> dicts;
    for (size_t i = 0; i < 4; ++i) {
      for (const auto& [name, value] : record.dicts[i]) {
        dicts[i].Set(name, value);
      }
    }
    const auto or_absent = [](const CStrDict& dict) {
      return dict.empty() ? std::nullopt : std::optional(dict);
    };
    info->type_equivs = dicts[0];
    info->_domains = or_absent(dicts[1]);
    info->inst_type_equivs = or_absent(dicts[2]);
    info->_inst_domains = or_absent(dicts[3]);
    return info;
  }
  Text Dump(const std::optional<CNaiveRecord>& record) const {
    return Dump(record ? Make(*record) : nullptr);
  }

  const CScopeInfoKey kKey{fWorld.File("a.py"), "C", ":names", fWorld.File("b.py"), "f"};
  CScopeInfoSerializer fSerializer;

  // Every field is filled, and integers of every kind stand in it.
  const Bytes kRecord =
      B("87 | 82 ':c' 81 '(' 84 'Base' 81 ')' 81 'x' 83 'a;b' 84 ':@;c' | 80 82 84 87 |"
        "81 89 8B | 81 89 8B | 81 89 8D | 81 89 8B | 80");
};

TEST_F(ScopeInfoSerializerTest, Integers) {
  const std::pair<uint64_t, Bytes> rows[] = {{0, B("80")},
                                             {63, B("BF")},
                                             {64, B("C0")},
                                             {127, B("FF")},
                                             {128, B("40 C2")},
                                             {129, B("41 C2")},
                                             {300, B("6C C4")},
                                             {4095, B("7F FF")},
                                             {4096, B("40 40 C1")},
                                             {~uint64_t{0} >> 1, Times(10, B("7F")) + B("C7")},
                                             {~uint64_t{0}, Times(10, B("7F")) + B("CF")}};
  const auto read = [&](const Bytes& bytes) {
    const Bytes message = B("80") + bytes;
    fSerializer.fEncodedReader.SetStr(message);
    return fSerializer.fEncodedReader.ReadInt();
  };
  for (const auto& [value, bytes] : rows) {
    fSerializer.Clear();
    fSerializer.WriteInt(value);
    EXPECT_EQ(fSerializer.fWriteBuffer.ToString(), bytes) << value;
    EXPECT_EQ(read(bytes), value);
    EXPECT_THROW(read(bytes.substr(0, bytes.size() - 1)), CValueError) << value;
  }
  // Longer than needed, in whatever way, is no error; more than 64 bits are.
  EXPECT_EQ(read(B("40 C0")), 0U);
  EXPECT_EQ(read(B("41") + Times(30, B("40")) + B("C0")), 1U);
  EXPECT_EQ(read(Times(10, B("7F")) + B("4F C0")), ~uint64_t{0});
  for (const Bytes& bytes : {Times(10, B("7F")) + B("D0"), Times(10, B("40")) + B("50 C0"),
                             Times(11, B("40")) + B("C1"), Times(40, B("40")) + B("C1")}) {
    EXPECT_THROW(read(bytes), CValueError) << "more than 64 bits: " << Repr(bytes);
  }
  for (const Bytes& bytes : {B("00"), B("3F"), B("40 3F C1"), B("40 00 C1")}) {
    EXPECT_THROW(read(bytes), CValueError) << "a byte below 0x40: " << Repr(bytes);
  }
}

TEST_F(ScopeInfoSerializerTest, Strings) {
  struct Row {
    std::vector<TextView> strings;
    TextView bytes;
    TextView table;
  };
  const Row rows[] = {
      {{""}, "81", "81 80"},
      {{"a.b"}, "80 82 85", "83 81 'a' 81 '.' 81 'b'"},
      {{"a."}, "80 83", "82 81 'a' 81 '.'"},
      {{".."}, "80 81", "81 81 '.'"},
      {{"b", "a.b", "", "b"}, "81 82 84 81 87 81", "84 81 'b' 81 'a' 81 '.' 80"},
      {{" (),.[]"}, "80 82 84 86 88 8A 8D", "87 81 ' ' 81 '(' 81 ')' 81 ',' 81 '.' 81 '[' 81 ']'"},
      {{"{;:\xC3\xA9\"}"}, "81", "81 87 '{;:' C3 A9 '\"}'"},
  };
  for (const Row& row : rows) {
    fSerializer.Clear();
    for (const TextView s : row.strings) {
      fSerializer.WriteStr(s);
    }
    EXPECT_EQ(fSerializer.fWriteBuffer.ToString(), B(row.bytes)) << row.bytes;
    fSerializer.fWriteBuffer.Reset();
    fSerializer.WriteTokens();
    EXPECT_EQ(fSerializer.fWriteBuffer.ToString(), B(row.table)) << row.bytes;
    const Bytes message = B(row.table) + B(row.bytes);
    fSerializer.fEncodedReader.SetStr(message);
    for (const TextView s : row.strings) {
      EXPECT_EQ(fSerializer.fEncodedReader.ReadTokenizedStr(), s);
    }
  }
  const CStrDict empty;
  for (const CStrDict* const dict : {&empty, static_cast<const CStrDict*>(nullptr)}) {
    fSerializer.Clear();
    fSerializer.WriteStrDict(dict);
    EXPECT_EQ(fSerializer.fWriteBuffer.ToString(), B("80"));
  }
}

TEST_F(ScopeInfoSerializerTest, GoldenRecords) {
  struct Row {
    const char* why;
    Bytes message;
    Text dump;
    bool canonical = true;  // the record encodes to this very message
  };
  const Row rows[] = {
      {"empty", B("81 80 | 81 | 80 80 80 80 | 80"), "'' {} None None None"},
      {"does not exist", B("81 80 | 81 | 80 80 80 80 | 81"), "'' {} None None None missing"},
      {"all fields, tokens shared", kRecord,
       "':c(Base)' {'x': 'a;b'} {'x': 'a;b'} {'x': ':@;c'} {'x': 'a;b'}"},
      {"keys by code point, which is not the order of UTF-16",
       B("85 | 80 81 'z' 82 C3A9 83 EFBFBF 84 F09F9880 | 81 | 84 83 81 85 81 87 81 89 81 |"
         "80 80 80 | 80"),
       "'' {'z': '', 'é': '', '\xEF\xBF\xBF': '', '\xF0\x9F\x98\x80': ''} None None None"},
      {"what follows the message is not looked at",
       B("81 80 | 81 | 80 80 80 80 | 80 | 00 40 'rest'"), "'' {} None None None", false},
      {"any flag but zero", B("81 80 | 81 | 80 80 80 80 | 40 C8"), "'' {} None None None missing",
       false},
      {"a string without a token", B("40 40 C0 | 81") + B("80 80 80 80 | 80"), "null", false},
      {"overlong integers everywhere",
       B("42 C0 | 41 C0 'x' 40 C0 | 41 40 C0 | 40 C0 40 C0 40 C0 40 C0 | 40 40 C0"),
       "'x' {} None None None", false},
      {"empty tokens inside a string", B("82 80 81 'x' | 80 82 80 81 | 80 80 80 80 | 80"),
       "'x' {} None None None", false},
      {"a doubled key: the later value, the first place",
       B("83 81 'a' 81 'b' 81 'c' | 81 | 83 81 83 85 83 81 85 | 80 80 80 | 80"),
       "'a' {'a': 'c', 'c': 'b'} None None None", false},
      {"keys in descending order", B("82 81 'a' 81 'b' | 81 | 82 83 81 81 83 | 80 80 80 | 80"),
       "'a' {'b': 'a', 'a': 'b'} None None None", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    const auto info = Read(row.message);
    EXPECT_EQ(Dump(info), row.dump);
    if (row.canonical) {
      EXPECT_EQ(fSerializer.WriteScopeInfo(*info), row.message);
      EXPECT_EQ(fSerializer.WriteScopeInfo(*Make(*CNaiveDecoder::Decode(row.message))),
                row.message);
    }
  }
  // What the message does not hold.
  const auto info = Read(kRecord);
  EXPECT_EQ(info->key, kKey);
  EXPECT_EQ(info->disk_mtime, 2.5);
  EXPECT_TRUE(info->incomplete);
  EXPECT_EQ(info->scope_kind, kClassKind);
  EXPECT_FALSE(info->_serialized_data.has_value());
  // An empty dictionary comes back as an absent one.
  info->_domains = info->inst_type_equivs = info->_inst_domains = CStrDict();
  info->type_equivs.clear();
  info->scope_ibytes = {};
  EXPECT_EQ(fSerializer.WriteScopeInfo(*info), rows[0].message);
}

TEST_F(ScopeInfoSerializerTest, ADamagedFieldGivesNoRecord) {
  std::vector<CNaiveDecoder::CField> fields;
  ASSERT_TRUE(CNaiveDecoder::Decode(kRecord, &fields));
  ASSERT_EQ(fields.size(), 25U);
  const auto with = [&](const CNaiveDecoder::CField& field, const Bytes& bytes) {
    Bytes damaged = kRecord;
    return damaged.replace(field.begin, field.end - field.begin, bytes);
  };
  for (const CNaiveDecoder::CField& field : fields) {
    SCOPED_TRACE("the integer at " + std::to_string(field.begin));
    EXPECT_EQ(Read(with(field, B("40 3F"))), nullptr);
    EXPECT_EQ(Read(with(field, Times(11, B("40")) + B("C1"))), nullptr);
    // A flag of any size is a flag; counts, lengths and references name what is not there.
    const bool is_flag = field.end == kRecord.size();
    for (const Bytes& bytes :
         {B("48 C8"), Times(9, B("7E")) + B("C1"), Times(10, B("7F")) + B("CF")}) {
      EXPECT_EQ(Read(with(field, bytes)) != nullptr, is_flag) << Repr(bytes);
    }
    ASSERT_NE(Read(kRecord), nullptr) << "the reader is ready for the next message";
  }
  for (size_t size = 0; size < kRecord.size(); ++size) {
    // A copy, so that a sanitizer sees reading behind it.
    const std::vector<char> cut(kRecord.begin(), kRecord.begin() + static_cast<ptrdiff_t>(size));
    EXPECT_EQ(Read({cut.data(), cut.size()}), nullptr) << "cut off at " << size;
    ASSERT_NE(Read(kRecord), nullptr);
  }
  const auto named = [](const Bytes& name) {
    return B("82 80") + static_cast<char>(0x80 + name.size()) + name +
           B("81 | 80 81 83 81 80 80 | 80");
  };
  ASSERT_NE(Read(named(B("F48FBFBF"))), nullptr);
  for (const char* const name : {"80", "C3", "C080", "E08080", "EDA080", "F0808080", "F4908080",
                                 "F888808080", "FF", "C3 'x'"}) {
    EXPECT_EQ(Read(named(B(name))), nullptr) << "a name that is not UTF-8: " << name;
  }
}

TEST_F(ScopeInfoSerializerTest, RandomRecordsAndDamageAsTheNaiveCodecHasThem) {
  std::mt19937_64 random(fakes::TestSeed());
  const auto pick = [&](size_t below) { return static_cast<size_t>(random() % below); };
  const std::vector<Text> words{"self", "x", "y1", ":s", ";", ":lint", "é", "\xF0\x9F\x98\x80",
                                "{"};
  const auto text = [&] {
    Text result;
    for (size_t i = pick(6); i > 0; --i) {
      result += pick(2) == 0 ? Text(1, " (),.[]"[pick(7)]) : words[pick(words.size())];
      result += pick(3) == 0 ? std::to_string(pick(500)) : "";
      // Lengths around those up to which bytes are taken in words and searched at once.
      result += pick(9) == 0 ? Text(pick(70), 'w') : "";
    }
    return result;
  };
  size_t readable = 0;
  for (int round = 0; round < 500; ++round) {
    SCOPED_TRACE(round);
    CNaiveRecord record;
    record.ibytes = text();
    record.does_not_exist = pick(8) == 0;
    for (auto& dict : record.dicts) {
      for (size_t i = pick(2) == 0 ? 0 : pick(pick(8) == 0 ? 200 : 12); i > 0; --i) {
        CNaiveRecord::Store(dict, text(), text());
      }
    }
    const Bytes message = fSerializer.WriteScopeInfo(*Make(record));
    ASSERT_EQ(message, CNaiveEncoder::Encode(record));
    for (auto& dict : record.dicts) {
      std::sort(dict.begin(), dict.end());
    }
    ASSERT_EQ(Dump(Read(message)), Dump(record));

    for (int i = 0; i < 20; ++i) {
      Bytes damaged = message;
      for (size_t changes = 1 + pick(3); changes > 0; --changes) {
        const size_t at = pick(damaged.size());
        const char byte =
            pick(2) == 0 ? damaged[pick(damaged.size())] : static_cast<char>(pick(256));
        if (pick(3) == 0) {
          damaged.insert(at, 1, byte);
        } else if (pick(8) == 0 && damaged.size() > 1) {
          damaged.erase(at, 1);
        } else {
          damaged[at] = byte;
        }
      }
      const auto expected = CNaiveDecoder::Decode(damaged);
      ASSERT_EQ(Dump(Read(damaged)), Dump(expected)) << Repr(damaged);
      readable += expected ? 1 : 0;
    }
  }
  EXPECT_GT(readable, 500U) << "the damage was too rough to tell much";
}

TEST_F(ScopeInfoSerializerTest, AMessageThatFailsLeavesItsTokensUntilClear) {
  const Bytes empty_record = B("81 80 | 81 | 80 80 80 80 | 80");
  const auto empty = Make({});
  CScopesSeenDict seen;
  seen.Set({fWorld.File("a.py"), "f"}, 2.0);
  const auto no_id = [](Loc) { return std::optional<uint64_t>(); };

  fSerializer.WriteStr("stale");
  EXPECT_THROW(fSerializer.WriteStr(std::nullopt), CTypeError);
  EXPECT_EQ(fSerializer.WriteScopeInfo(*empty), B("82 85 'stale' 80 | 81 | 83 80 80 80 80 80"));
  EXPECT_EQ(fSerializer.WriteScopeInfo(*empty), empty_record) << "a finished message clears";

  EXPECT_THROW(fSerializer.SerializeScopesSeenDict(&seen, no_id), CAssertionError);
  EXPECT_EQ(fSerializer.fWriteBuffer.ToString(), B("81"));
  SetAssertionsActive(false);
  EXPECT_THROW(fSerializer.SerializeScopesSeenDict(&seen, no_id), CTypeError);
  SetAssertionsActive(true);
  fSerializer.fEncodedReader.SetStr(kRecord);
  fSerializer.Clear();
  EXPECT_EQ(fSerializer.fEncodedReader.ReadTokenizedStr(), ":c(Base)") << "Clear is for writing";
  EXPECT_EQ(fSerializer.WriteScopeInfo(*empty), empty_record);
}

TEST_F(ScopeInfoSerializerTest, AnOverriddenPieceIsAskedForEveryToken) {
  struct CSpy : CScopeInfoSerializer {
    uint32_t GetTokenIndex(BytesView token) override {
      asked += Bytes(token) + "|";
      return CScopeInfoSerializer::GetTokenIndex(token);
    }
    Bytes asked;
  } spy;
  EXPECT_EQ(spy.WriteScopeInfo(*Read(kRecord)), kRecord);
  EXPECT_EQ(spy.asked, ":c|(|Base|)|x|a;b|x|a;b|x|:@;c|x|a;b|");
}

class ScopesSeenTest : public ScopeInfoSerializerTest {
 protected:
  Bytes Write(const CScopesSeenDict* seen) {
    return fSerializer.SerializeScopesSeenDict(
        seen, [&](Loc loc) { return std::optional<uint64_t>(loc == kFive ? 5 : 300); });
  }
  CScopesSeenPtr ReadSeen(BytesView message) {
    return fSerializer.DeserializeScopesSeenDict(message, [&](uint64_t id) {
      return id == 5 ? kFive : id == 300 ? kOther : Loc();
    });
  }
  const Loc kFive = fWorld.File("five.py");
  const Loc kOther = fWorld.File("other.py");
};

TEST_F(ScopesSeenTest, GoldenMessages) {
  struct Row {
    const char* why;
    std::vector<std::pair<CScopeRef, DiskTime>> seen;
    Bytes message;
    Text dump;
  };
  const Text five = "(Location('file:///src/five.py'), '*'): ";
  const Text other = "(Location('file:///src/other.py'), '*'): ";
  const Row rows[] = {
      {"empty is not absent", {}, B("80 80"), "{}"},
      {"one file", {{{kFive, "f"}, 0.0}}, B("81 81 '*' | 81 | 85 81 80"), "{" + five + "0.0}"},
      {"in the order of the dictionary, the last time at the first place",
       {{{kOther, "g"}, 1.0}, {{kFive, "f"}, 0.0}, {{kOther, ""}, -1.0}},
       B("81 81 '*' | 82 | 6C C4 81 40 40 40 40 40 40 40 40 70 7F CB | 85 81 80"),
       "{" + other + "-1.0, " + five + "0.0}"},
  };
  EXPECT_EQ(Write(nullptr), "");
  EXPECT_EQ(ReadSeen(""), nullptr);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.why);
    CScopesSeenDict seen;
    for (const auto& [ref, mtime] : row.seen) {
      seen.Set(ref, mtime);
    }
    EXPECT_EQ(Write(&seen), row.message);
    EXPECT_EQ(Repr(ReadSeen(row.message)), row.dump);
    for (size_t size = 1; size < row.message.size(); ++size) {
      EXPECT_THROW(ReadSeen(row.message.substr(0, size)), CValueError) << "cut off at " << size;
      EXPECT_EQ(Repr(ReadSeen(row.message)), row.dump);
    }
  }
  // Any scope is read; of a doubled one the later time counts.
  EXPECT_EQ(Repr(ReadSeen(B("83 81 'C' 81 '.' 81 'm' | 82 | 85 80 82 85 80 | 85 80 82 85 81"))),
            "{(Location('file:///src/five.py'), 'C.m'): 5e-324}");
  for (const char* const damaged :
       {"81 81 '*' | 82 | 85 81 80", "81 81 '*' | 81 | 85 83 80", "81 86 '*' | 81 | 85 81 80",
        "84 81 '*' | 81 | 85 81 80", "81 81 '*' | 81 | 05 81 80",
        "81 81 '*' | 7F 7F C1 | 85 81 80"}) {
    EXPECT_THROW(ReadSeen(B(damaged)), CValueError) << damaged;
  }
}

TEST_F(ScopesSeenTest, TimesSurviveToTheBit) {
  for (const double time : {-1.0, 1.0, -0.0, 1722222222.123456789, 5e-324, 1.7e308,
                            std::numeric_limits<double>::infinity(), std::nan("12345")}) {
    CScopesSeenDict seen;
    seen.Set({kFive, "f"}, time);
    const auto again = ReadSeen(Write(&seen));
    EXPECT_EQ(ULongLongValueForDoubleBits(again->begin()->second),
              ULongLongValueForDoubleBits(time));
  }
}

TEST_F(ScopesSeenTest, AFileThatIsNotKnownIsReportedAndLeftOut) {
  testing::internal::CaptureStderr();
  const auto seen = ReadSeen(B("81 81 '*' | 83 | 85 81 82 | 89 81 82 | 6C C4 81 82"));
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "The loc is None when Deserializing seen dict: 9\n");
  EXPECT_EQ(seen->size(), 2U);
}

TEST(FuzzCorpus, HoldsItsProperties) {
  using Body = void (*)(BytesView);
  for (const auto& [name, body] : {std::pair<const char*, Body>("record", fuzz::CheckRecordMessage),
                                   {"scopesseen", fuzz::CheckScopesSeenMessage}}) {
    size_t files = 0;
    for (const auto& file :
         std::filesystem::directory_iterator(SCOPEINFO_SOURCE_DIR "/fuzz/corpus/" + Text(name))) {
      std::ostringstream message;
      message << std::ifstream(file.path(), std::ios::binary).rdbuf();
      EXPECT_NO_THROW(body(message.str())) << file.path();
      ++files;
    }
    EXPECT_GT(files, 5U) << name;
  }
}

}  // namespace
}  // namespace pysource::scopeinfo
