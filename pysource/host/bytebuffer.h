// The byte buffers under the serialised form: one for writing messages, one for reading them.
// serialized/scopeinfoserializer.h describes the forms byte by byte.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "pysource/host/strdict.h"
#include "pysource/host/text.h"

namespace pysource {

// A growing buffer into which a message is written.
class CWritableByteBuffer {
 public:
  void WriteByte(uint8_t value) {
    *Room(1) = static_cast<char>(value);
    Count(1);
  }
  // In the integer form of messages.
  void WriteInt(uint64_t value) {
    if (value < 128) {
      WriteByte(static_cast<uint8_t>(0x80 + value));
    } else {
      WriteLongInt(value);
    }
  }
  // Raw bytes, without length or other framing.
  void WriteStr(BytesView bytes);
  // Where the next bytes go, with room for `size` of them. The caller stores bytes there and passes
  // the number of those that are to stay to Count.
  char* Room(size_t size) {
    if (!HasRoom(size)) {
      Grow(size);
    }
    return _fEnd;
  }
  bool HasRoom(size_t size) const noexcept { return RoomSize() >= size; }
  size_t RoomSize() const noexcept { return static_cast<size_t>(_fLimit - _fEnd); }
  void Count(size_t size) noexcept { _fEnd += size; }
  // Empties the buffer. Keeps its memory, unless a huge message made it huge.
  void Reset();
  // A copy of the whole content, which stays in place.
  Bytes ToString() const { return Bytes(View()); }
  // The same without a copy; valid until the next write or reset.
  BytesView View() const noexcept { return {_fMemory.get(), size()}; }
  size_t size() const noexcept { return static_cast<size_t>(_fEnd - _fMemory.get()); }

 private:
  void Grow(size_t more);
  void WriteLongInt(uint64_t value);

  std::unique_ptr<char[]> _fMemory;
  char* _fEnd = nullptr;    // the end of what was written
  char* _fLimit = nullptr;  // the end of the memory
};

// Collects the strings and dictionaries of one message, to put them into one block of memory. They
// are collected in reusable scratch memory, since their size is only known when all are read. Then
// Finish() makes the block, and TakeNext() the dictionaries over it.
class CStrDictBatch {
 public:
  static constexpr size_t kMostDicts = 4;

  void Clear();
  // Returns an arena that holds everything; `plain` becomes the string that was read outside the
  // dictionaries. After that the dictionaries can be taken.
  CArena Finish(BytesView* plain);
  // The number of items that were read for the next dictionary to be taken.
  size_t NextSize() const noexcept { return _fDictEnds[_fTaken] - _fTakenPieces; }
  // The next dictionary, in the order in which they were read. A key that occurs twice has the
  // later value at the place of the first.
  // REQUIRES: `arena` is the one that Finish returned.
  CStrDict TakeNext(const CArena& arena);

 private:
  friend class CEncodedByteBufferReader;
  struct Piece {
    uint32_t name_size;
    uint32_t value_size;
  };
  // The plain string, then name and value of each item, one after the other.
  CWritableByteBuffer _fText;
  std::vector<Piece> _fPieces;  // of all dictionaries
  size_t _fPlainSize = 0;
  size_t _fDictEnds[kMostDicts] = {};  // where each dictionary ends in _fPieces
  size_t _fDictCount = 0;
  // What has been taken: the number of dictionaries and of items. After these, the place of the
  // next item and of its text in the arena.
  size_t _fTaken = 0;
  size_t _fTakenPieces = 0;
  CStrDict::Item* _fRoom = nullptr;
  const char* _fTextAt = nullptr;
};

// Reads encoded messages, whatever bytes they contain: every operation throws CValueError on
// malformed data, and its time and memory are bounded by the size of the message.
class CEncodedByteBufferReader {
 public:
  // Starts reading a message, and reads the token table at its start; the next read continues after
  // it. Does not copy the bytes.
  // REQUIRES: the bytes stay valid until the last read.
  void SetStr(BytesView message);

  // Reads an integer of up to 64 bits. Accepts forms that are longer than needed.
  uint64_t ReadInt() { return ReadIntAt(_fAt); }
  // Reads a string and assembles it from its tokens.
  Bytes ReadTokenizedStr();
  // Reads a dictionary and adds its items to `dict`. With `text_keys`, keys that are not UTF-8 are
  // malformed.
  void ReadStrDictInto(CStrDict& dict, bool text_keys);

  // The same two operations, into a batch.
  void ReadTokenizedStrInto(CStrDictBatch& batch);
  void ReadStrDictInto(CStrDictBatch& batch, bool text_keys);

 private:
  // The integer at `at`; moves `at` to its end.
  uint64_t ReadIntAt(const unsigned char*& at) const {
    if (at != _fEnd && *at >= 0x80) [[likely]] {
      return *at++ - 0x80U;
    }
    return ReadLongInt(at);
  }
  uint64_t ReadLongInt(const unsigned char*& at) const;
  size_t ReadCount(size_t least_item_size, const char* what);
  // Reads a string and appends it to `out`; returns its size.
  size_t AppendTokenizedStr(CWritableByteBuffer& out);

  const unsigned char* _fAt = nullptr;
  const unsigned char* _fEnd = nullptr;
  std::vector<BytesView> _fTokens;  // views into the message; the first _fTokenCount are valid
  size_t _fTokenCount = 0;
  size_t _fBlockCount = 0;  // how many of these can be read as a block, whatever their size
  // The number of bytes to which further strings may expand. Many references to a long token make a
  // string much longer than the message; without a bound, a few megabytes could expand to
  // terabytes.
  size_t _fExpansionLeft = 0;
  CStrDictBatch _fBatch;  // scratch space for reads into a dictionary
};

}  // namespace pysource
