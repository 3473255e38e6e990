// What reading a record costs: allocations, and memory for bytes that lie about their size.

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>

#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"
#include "tests/fakes/world.h"
#include "tests/serialized/naivecodec.h"

namespace {

size_t gCount = 0;
size_t gBytes = 0;
size_t gPeak = 0;

}  // namespace

// Not inlined: the compiler would see free() for what came from new.
[[gnu::noinline]] void* operator new(size_t size) {
  void* const memory = std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  ++gCount;
  gBytes += malloc_usable_size(memory);
  gPeak = std::max(gPeak, gBytes);
  return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
  gBytes -= malloc_usable_size(memory);
  std::free(memory);
}
void operator delete(void* memory, size_t) noexcept { operator delete(memory); }

namespace pysource::scopeinfo {
namespace {

class MemoryTest : public fakes::CWorldTest {
 protected:
  CScopeInfoPtr Read(CScopeInfoSerializer& serializer, BytesView message) const {
    return serializer.ReadScopeInfo(kKey, 2.5, false, message);
  }
  const CScopeInfoKey kKey{fWorld.File("a.py"), "C", ":names", fWorld.File("a.py"), "f"};
};

TEST_F(MemoryTest, AllocationsDoNotDependOnTheNumberOfNames) {
  CScopeInfoSerializer serializer;
  for (const size_t names : {0, 1, 10, 3000}) {
    CNaiveRecord record;
    for (size_t i = 0; i < names; ++i) {
      for (auto& dict : record.dicts) {
        dict.emplace_back("name" + std::to_string(i), ":s" + std::to_string(i) + ";:lint");
      }
    }
    const Bytes message = CNaiveEncoder::Encode(record);
    Read(serializer, message);  // lets the scratch memory grow
    const size_t before = gCount;
    const CScopeInfoPtr info = Read(serializer, message);
    EXPECT_LE(gCount - before, 3U) << names << " names";
    EXPECT_EQ(info->type_equivs.size(), names);
  }
}

TEST_F(MemoryTest, IsBoundedByTheSizeOfTheMessage) {
  const auto expect_null_within = [&](const char* why, const Bytes& message, size_t most) {
    CScopeInfoSerializer serializer;
    gPeak = gBytes;
    const size_t before = gBytes;
    EXPECT_EQ(Read(serializer, message), nullptr) << why;
    EXPECT_LE(gPeak - before, most) << why;
  };
  // A token of 32 KiB that is named over and over.
  const Bytes table = "\x81\x40\x40\xC8" + Bytes(1 << 15, 'x');
  const Bytes nothing_else = "\x81\x80\x80\x80\x80\x80";
  CScopeInfoSerializer serializer;
  EXPECT_NE(Read(serializer, table + Bytes(500, '\x80') + nothing_else), nullptr)
      << "more than any real record, and yet in proportion";
  const Bytes bomb(8000, '\x80');
  const size_t bound = (size_t{16} << 20) + 64 * (table.size() + bomb.size() + 20);
  expect_null_within("a string", table + bomb + nothing_else, 3 * bound);
  expect_null_within("a name", table + "\x81\x81" + bomb + "\x81\x81\x80\x80\x80\x80", 3 * bound);
  expect_null_within("a value", table + "\x81\x81\x81" + bomb + "\x81\x80\x80\x80\x80", 3 * bound);

  const Bytes huge = Bytes(9, '\x7E') + "\xC1";
  const Bytes million = "\x40\x49\x74\xC3";
  expect_null_within("tokens", huge, 1000);
  expect_null_within("tokens", million, 1000);
  expect_null_within("as many tokens as bytes", "\xFF" + Bytes(126, '\x80') + "\x7F", 8000);
  expect_null_within("the length of a token", "\x81" + huge, 1000);
  for (size_t dict = 0; dict < 4; ++dict) {
    expect_null_within("items", "\x81\x80\x81" + Bytes(dict, '\x80') + huge, 1000);
    expect_null_within("items", "\x81\x80\x81" + Bytes(dict, '\x80') + million, 1000);
    expect_null_within("half as many items as bytes",
                       "\x81\x80\x81" + Bytes(dict, '\x80') + "\xBF" + Bytes(126, '\x81'), 8000);
  }
}

}  // namespace
}  // namespace pysource::scopeinfo
