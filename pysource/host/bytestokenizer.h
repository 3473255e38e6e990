// The token table of the message that is being written.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

#include "pysource/host/bytebuffer.h"
#include "pysource/host/text.h"
#include "pysource/host/words.h"

namespace pysource {

// Numbers each distinct piece of bytes in the order of first use. Keeps its memory when it is
// cleared, so a table that is used again allocates nothing.
//
// A record has about thirty pieces. Half of them are new, and nearly all have up to sixteen bytes;
// no processor predicts which pieces are new and which are longer than eight bytes. So the code
// avoids branches: two words in the hash table identify a piece, every piece is written as if it
// were new, and arithmetic decides whether it counts. Pieces of one byte, mostly separators, need
// no search.
class CBytesTokenizer {
 public:
  CBytesTokenizer();

  // The index of the token. A new token is copied; its index is the number of tokens before it.
  uint32_t GetTokenIndex(BytesView token) {
    if (token.size() < kWordSize) {
      char padded[kWordSize];
      StoreWord(padded, LoadShort(token.data(), token.size()));
      return GetPieceIndex(BytesView(padded, token.size()), padded);
    }
    return GetPieceIndex(token, token.data() + token.size() - kWordSize);
  }

  // The same for a piece of a longer string. Faster, since a load may go beyond the end of the
  // piece.
  // REQUIRES: the string has at least eight bytes, and its last eight bytes are at `last_word`.
  uint32_t GetPieceIndex(BytesView piece, const char* last_word) {
    const size_t size = piece.size();
    if (size == 1) {
      return GetByteIndex(piece[0]);
    }
    if (size - 1 >= kMostInKey || _fCount >= _fMostCount || !_fTable.HasRoom(1 + kMostInKey)) {
      return GetIndexSlowly(piece);
    }
    const CKey key = KeyOf(piece, last_word);
    size_t at = key.Hash() >> _fShift;
    while (_fCells[at].IsAnother(key, _fRound)) {
      at = (at + 1) & _fMask;
    }
    char* const next = _fTable.Room(1 + kMostInKey);
    next[0] = static_cast<char>(0x80 + size);
    const uint64_t beyond = MaskIfBelow(kWordSize, size);
    StoreWord(next + 1, key.first);
    StoreWord(next + 1 + ((size - kWordSize) & beyond), key.last | (key.first & ~beyond));
    // Field by field: for a whole assignment the compiler would first build the key in memory.
    CCell& cell = _fCells[at];
    cell.key.first = key.first;
    cell.key.last = key.last;
    cell.key.size = key.size;
    return Enter(cell.place, 1 + size);
  }
  // The same for the token of this one byte.
  uint32_t GetByteIndex(char byte) {
    char* const next = _fTable.Room(2);
    next[0] = static_cast<char>(0x80 + 1);
    next[1] = byte;
    return Enter(_fBytes[static_cast<unsigned char>(byte)], 2);
  }

  size_t size() const noexcept { return _fCount; }
  bool empty() const noexcept { return _fCount == 0; }
  // The bytes of a token, valid until the next new token. Walks over all tokens before it.
  BytesView Token(size_t index) const;
  // The tokens as a message holds them: for each, in order of the indices, its length and its
  // bytes. Valid until the next new token.
  BytesView Table() const noexcept { return _fTable.View(); }
  void clear();

 private:
  static constexpr size_t kMostInKey = 2 * kWordSize;

  // All bits set if `a` is less than `b`, otherwise none. Uses the sign of the difference, since a
  // compiler may turn a comparison into a branch.
  // REQUIRES: both are less than 2^63.
  static uint64_t MaskIfBelow(uint64_t a, uint64_t b) noexcept {
    return static_cast<uint64_t>(static_cast<int64_t>(a - b) >> 63);
  }

  // All bytes of a token of one to kMostInKey bytes.
  struct CKey {
    uint64_t first;  // the first eight bytes, fewer if there are fewer
    uint64_t last;   // if there are more than eight, the last eight, which can overlap the first
    // For a longer token the words are its two ends, and this is kLong and its place in _fTable.
    uint64_t size;

    // The high bits are the good ones, since they depend on all bits of the key.
    uint64_t Hash() const noexcept {
      return (first + size) * 0x9E3779B97F4A7C15ULL + last * 0xC2B2AE3D27D4EB4FULL;
    }
  };
  // A round in the high half, an index in the low half. It is valid only if its round is the
  // present one, so clearing takes one increment.
  using Place = uint64_t;
  struct CCell {
    CKey key;
    Place place;

    bool IsAnother(const CKey& other, uint64_t round) const noexcept {
      const uint64_t differs =
          (key.first ^ other.first) | (key.last ^ other.last) | (key.size ^ other.size);
      return (differs & MaskIfBelow(place >> 32 ^ round, 1)) != 0;
    }
  };

  static CKey KeyOf(BytesView piece, const char* last_word) {
    // A load that would go beyond the end of the string begins earlier; the bytes before the piece
    // are then shifted out.
    const char* const from = std::min(piece.data(), last_word);
    const uint64_t word = LoadWord(from) >> (8 * (piece.data() - from));
    const uint64_t beyond = MaskIfBelow(kWordSize, piece.size());
    const uint64_t last = LoadWord(from + ((piece.size() - kWordSize) & beyond)) & beyond;
    return {FirstBytes(word, piece.size()), last, piece.size()};
  }

  // Returns the index of the token that was written after the end of _fTable. If `place` is not the
  // token's own but free, adds the token there.
  uint32_t Enter(Place& place, size_t table_size) {
    const uint64_t is_new = MaskIfBelow(0, place >> 32 ^ _fRound);
    const uint64_t index = (place & ~is_new & 0xFFFFFFFF) | (_fCount & is_new);
    place = _fRound << 32 | index;
    _fCount -= is_new;
    _fTable.Count(table_size & is_new);
    return static_cast<uint32_t>(index);
  }
  uint32_t GetIndexSlowly(BytesView piece);
  uint32_t GetEmptyIndex();
  uint32_t GetLongIndex(BytesView token);
  void SetCells(size_t size);
  void Grow();

  // Open addressing; the number of cells in use is a power of two. It is small at the start of each
  // round, so that the cells of a record of the usual size are close together.
  std::vector<CCell> _fCells;
  size_t _fMask = 0;         // the number of cells in use minus one
  unsigned _fShift = 0;      // turns a hash into the number of a cell
  uint64_t _fMostCount = 0;  // max tokens for this number of cells
  uint64_t _fRound = 1;      // fits in 32 bits
  uint64_t _fCount = 0;
  std::array<Place, 256> _fBytes{};
  Place _fEmpty = 0;
  CWritableByteBuffer _fTable;
};

}  // namespace pysource
