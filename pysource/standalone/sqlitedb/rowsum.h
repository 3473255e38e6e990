// The checksum that every row carries, over its key and its content: what a save has written can be
// told from what a disk, a stray write or another program has made of it.
//
// A value is summed up with its type and its length, so that no two rows of different values have
// the same bytes. It is XXH3, which is faster than memory is read.
#pragma once

#include <cstdint>

#include "pysource/host/text.h"
#include "pysource/standalone/sqlitedb/connection.h"

namespace pysource::standalone::sqlitedb {

class CRowSum {
 public:
  // Begins anew; the memory is kept.
  CRowSum& Begin();
  CRowSum& Null();
  CRowSum& Int(int64_t value);
  CRowSum& Double(double value);
  CRowSum& TextOf(TextView value);
  CRowSum& BytesOf(BytesView value);
  // The value of a column, as it was bound.
  CRowSum& Column(const CQuery& query, int column);
  CRowSum& Columns(const CQuery& query, int first, int last);

  int64_t Sum() const;
  // For rows of which the most is one value that not every reader needs: the upper half is that of
  // Sum(), the lower one is of the value alone.
  int64_t SumWith(BytesView value, int64_t id) const;
  // Whether the halves of `sum` fit.
  bool IsUpperOf(int64_t sum) const;
  static bool IsLowerOf(int64_t sum, BytesView value, int64_t id);

 private:
  void Append(char type, const void* data, size_t size);

  Bytes _fBytes;
};

// Sums of rows are added up, whatever their order, to tell that one is missing or there twice.
inline int64_t AddSums(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}
inline int64_t TakeSum(int64_t from, int64_t sum) {
  return static_cast<int64_t>(static_cast<uint64_t>(from) - static_cast<uint64_t>(sum));
}

}  // namespace pysource::standalone::sqlitedb
