#include "pysource/standalone/sqlitedb/rowsum.h"

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace pysource::standalone::sqlitedb {
namespace {

constexpr uint64_t kLower = 0xFFFFFFFF;

uint64_t LowerOf(BytesView value, int64_t id) {
  return XXH3_64bits_withSeed(value.data(), value.size(), static_cast<uint64_t>(id)) & kLower;
}

}  // namespace

void CRowSum::Append(char type, const void* data, size_t size) {
  _fBytes += type;
  _fBytes.append(static_cast<const char*>(data), size);
}

CRowSum& CRowSum::Begin() {
  _fBytes.clear();
  return *this;
}

CRowSum& CRowSum::Null() {
  _fBytes += 'n';
  return *this;
}

CRowSum& CRowSum::Int(int64_t value) {
  Append('i', &value, sizeof(value));
  return *this;
}

CRowSum& CRowSum::Double(double value) {
  Append('d', &value, sizeof(value));
  return *this;
}

CRowSum& CRowSum::TextOf(TextView value) {
  const uint64_t size = value.size();
  Append('t', &size, sizeof(size));
  _fBytes.append(value);
  return *this;
}

CRowSum& CRowSum::BytesOf(BytesView value) {
  const uint64_t size = value.size();
  Append('b', &size, sizeof(size));
  _fBytes.append(value);
  return *this;
}

CRowSum& CRowSum::Column(const CQuery& query, int column) {
  switch (query.Type(column)) {
    case SQLITE_NULL:
      return Null();
    case SQLITE_INTEGER:
      return Int(query.IntAt(column));
    case SQLITE_FLOAT:
      return Double(query.DoubleAt(column));
    case SQLITE_TEXT:
      return TextOf(query.ViewAt(column));
    default:
      return BytesOf(query.ViewAt(column));
  }
}

CRowSum& CRowSum::Columns(const CQuery& query, int first, int last) {
  for (int column = first; column <= last; ++column) {
    Column(query, column);
  }
  return *this;
}

int64_t CRowSum::Sum() const {
  return static_cast<int64_t>(XXH3_64bits(_fBytes.data(), _fBytes.size()));
}

int64_t CRowSum::SumWith(BytesView value, int64_t id) const {
  return static_cast<int64_t>((static_cast<uint64_t>(Sum()) & ~kLower) | LowerOf(value, id));
}

bool CRowSum::IsUpperOf(int64_t sum) const {
  return ((static_cast<uint64_t>(Sum()) ^ static_cast<uint64_t>(sum)) & ~kLower) == 0;
}

bool CRowSum::IsLowerOf(int64_t sum, BytesView value, int64_t id) {
  return (static_cast<uint64_t>(sum) & kLower) == LowerOf(value, id);
}

}  // namespace pysource::standalone::sqlitedb
