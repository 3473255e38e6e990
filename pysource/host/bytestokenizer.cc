#include "pysource/host/bytestokenizer.h"

#include <bit>

#include "pysource/host/hash.h"

namespace pysource {
namespace {

// Enough for 99 of 100 records.
constexpr size_t kFirstCells = 256;
// A table that a huge record made larger than this is freed when it is cleared.
constexpr size_t kMostCellsKept = size_t{1} << 15;

constexpr uint64_t kLong = uint64_t{1} << 63;

// The token whose length is at `at`; moves `at` to the end of the token.
BytesView TakeToken(const char*& at) {
  uint64_t size = 0;
  for (unsigned shift = 0;; shift += 6) {
    const auto byte = static_cast<unsigned char>(*at++);
    if (byte >= 0x80) {
      // A single byte has seven bits, the last one of several six.
      size |= uint64_t{shift == 0 ? byte - 0x80U : byte & 0x3FU} << shift;
      break;
    }
    size |= uint64_t{byte & 0x3FU} << shift;
  }
  const BytesView token(at, size);
  at += size;
  return token;
}

// The hash of all bytes of a long token, from the hash of its key, which covers the two ends.
uint64_t LongHash(uint64_t hash, BytesView token) {
  for (size_t at = kWordSize; at + kWordSize < token.size(); at += kWordSize) {
    hash = (hash ^ hash >> 32 ^ LoadWord(token.data() + at)) * 0xD6E8FEB86659FD93ULL;
  }
  return hash;
}

}  // namespace

CBytesTokenizer::CBytesTokenizer() { SetCells(kFirstCells); }

BytesView CBytesTokenizer::Token(size_t index) const {
  const char* at = _fTable.View().data();
  BytesView token;
  for (size_t i = 0; i <= index; ++i) {
    token = TakeToken(at);
  }
  return token;
}

uint32_t CBytesTokenizer::GetIndexSlowly(BytesView piece) {
  if (_fCount >= _fMostCount) {
    Grow();
  }
  if (piece.size() > kMostInKey) {
    return GetLongIndex(piece);
  }
  if (piece.empty()) {
    // The empty token has no bytes for a key, so it has a place of its own.
    return GetEmptyIndex();
  }
  _fTable.Room(1 + kMostInKey);
  return GetTokenIndex(piece);
}

uint32_t CBytesTokenizer::GetEmptyIndex() {
  *_fTable.Room(1) = static_cast<char>(0x80);
  return Enter(_fEmpty, 1);
}

uint32_t CBytesTokenizer::GetLongIndex(BytesView token) {
  CKey key = KeyOf(token, token.data() + token.size() - kWordSize);
  size_t at = LongHash(key.Hash(), token) >> _fShift;
  for (; _fCells[at].place >> 32 == _fRound; at = (at + 1) & _fMask) {
    const CKey& other = _fCells[at].key;
    if (other.first == key.first && other.last == key.last && (other.size & kLong) != 0) {
      const char* stored = _fTable.View().data() + (other.size & ~kLong);
      if (TakeToken(stored) == token) {
        return static_cast<uint32_t>(_fCells[at].place);
      }
    }
  }
  key.size = kLong | _fTable.size();
  _fCells[at] = {key, _fRound << 32 | _fCount};
  _fTable.WriteInt(token.size());
  CopyWords(_fTable.Room(token.size()), token.data(), token.size());
  _fTable.Count(token.size());
  return static_cast<uint32_t>(_fCount++);
}

void CBytesTokenizer::SetCells(size_t size) {
  if (_fCells.size() < size) {
    _fCells.resize(size);
  }
  _fMask = size - 1;
  _fShift = static_cast<unsigned>(std::countl_zero(_fMask));
  _fMostCount = size / 2;
}

void CBytesTokenizer::Grow() {
  SetCells((_fMask + 1) * 2);
  for (CCell& cell : _fCells) {
    cell.place = 0;
  }
  const char* const table = _fTable.View().data();
  const char* next = table;
  for (uint64_t index = 0; index < _fCount; ++index) {
    const auto begin = static_cast<uint64_t>(next - table);
    const BytesView token = TakeToken(next);
    if (token.size() <= 1) {
      continue;
    }
    char padded[kWordSize];
    const char* last_word = token.data() + token.size() - kWordSize;
    BytesView readable = token;
    if (token.size() < kWordSize) {
      StoreWord(padded, LoadShort(token.data(), token.size()));
      readable = BytesView(padded, token.size());
      last_word = padded;
    }
    CKey key = KeyOf(readable, last_word);
    uint64_t hash = key.Hash();
    if (token.size() > kMostInKey) {
      hash = LongHash(hash, token);
      key.size = kLong | begin;
    }
    size_t at = hash >> _fShift;
    while (_fCells[at].place >> 32 == _fRound) {
      at = (at + 1) & _fMask;
    }
    _fCells[at] = {key, _fRound << 32 | index};
  }
}

void CBytesTokenizer::clear() {
  _fTable.Reset();
  _fCount = 0;
  if (_fCells.size() > kMostCellsKept) {
    _fCells = {};
  }
  SetCells(kFirstCells);
  if (++_fRound > 0xFFFFFFFF) {  // the rounds start over, so no place of an old round may stay
    std::fill(_fCells.begin(), _fCells.end(), CCell{});
    _fBytes = {};
    _fEmpty = 0;
    _fRound = 1;
  }
}

}  // namespace pysource
