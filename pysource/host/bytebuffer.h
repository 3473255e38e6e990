// The byte buffers under the serialised form: one that a message is written into, one that takes a
// message apart. The forms are told byte by byte in serialized/scopeinfoserializer.h.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "pysource/host/strdict.h"
#include "pysource/host/text.h"

namespace pysource {

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
  // Where the next bytes go, with room for `size` of them: the caller stores them and then counts
  // those that are to stay.
  char* Room(size_t size) {
    if (!HasRoom(size)) {
      Grow(size);
    }
    return _fEnd;
  }
  bool HasRoom(size_t size) const noexcept { return RoomSize() >= size; }
  size_t RoomSize() const noexcept { return static_cast<size_t>(_fLimit - _fEnd); }
  void Count(size_t size) noexcept { _fEnd += size; }
  // Empties the buffer and keeps its memory, unless one huge message left it huge.
  void Reset();
  // A copy of the whole content, which stays in place.
  Bytes ToString() const { return Bytes(View()); }
  // The same without a copy; good until the next write or reset.
  BytesView View() const noexcept { return {_fMemory.get(), size()}; }
  size_t size() const noexcept { return static_cast<size_t>(_fEnd - _fMemory.get()); }

 private:
  void Grow(size_t more);
  void WriteLongInt(uint64_t value);

  std::unique_ptr<char[]> _fMemory;
  char* _fEnd = nullptr;    // of what was written
  char* _fLimit = nullptr;  // of the memory
};

// Strings and dictionaries read from one message, on their way into one block of memory. They are
// collected in scratch memory that is used again and again, because their size is known only when
// all are read; Finish() then makes the block and the dictionaries over it.
class CStrDictBatch {
 public:
  static constexpr size_t kMostDicts = 4;

  void Clear();
  // Makes an arena that holds everything; `plain` becomes the string read outside any dictionary.
  // The dictionaries can then be taken.
  CArena Finish(BytesView* plain);
  // How many items were read of the dictionary that is taken next.
  size_t NextSize() const noexcept { return _fDictEnds[_fTaken] - _fTakenPieces; }
  // The next dictionary, in the order in which they were read. `arena` is that of Finish. Of a
  // doubled key the later value wins, at the first one's place.
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
  // What is still to be taken: of dictionaries, their items and their text.
  size_t _fTaken = 0;
  size_t _fTakenPieces = 0;
  CStrDict::Item* _fRoom = nullptr;
  const char* _fTextAt = nullptr;
};

// Reads encoded messages, whatever they hold: every operation answers with CValueError to what is
// broken, and neither its time nor its memory exceeds what the size of the message accounts for.
class CEncodedByteBufferReader {
 public:
  // Takes a message and reads the token table at its head, so that the next read starts behind it.
  // The bytes are not copied: they must stay until the last read.
  void SetStr(BytesView message);

  // One integer of up to 64 bits. Longer forms than needed are accepted.
  uint64_t ReadInt() { return ReadIntAt(_fAt); }
  // One string, put together from its tokens.
  Bytes ReadTokenizedStr();
  // One dictionary, added to `dict`. With `text_keys` its keys must be UTF-8.
  void ReadStrDictInto(CStrDict& dict, bool text_keys);

  // The same two, into a batch.
  void ReadTokenizedStrInto(CStrDictBatch& batch);
  void ReadStrDictInto(CStrDictBatch& batch, bool text_keys);

 private:
  // The integer at `at`, which is moved behind it.
  uint64_t ReadIntAt(const unsigned char*& at) const {
    if (at != _fEnd && *at >= 0x80) [[likely]] {
      return *at++ - 0x80U;
    }
    return ReadLongInt(at);
  }
  uint64_t ReadLongInt(const unsigned char*& at) const;
  size_t ReadCount(size_t least_item_size, const char* what);
  // Appends one string to `out`; returns its size.
  size_t AppendTokenizedStr(CWritableByteBuffer& out);

  const unsigned char* _fAt = nullptr;
  const unsigned char* _fEnd = nullptr;
  std::vector<BytesView> _fTokens;  // views into the message; the first _fTokenCount count
  size_t _fTokenCount = 0;
  size_t _fBlockCount = 0;  // of these, how many can be read as a block, whatever their size
  // How many more bytes strings may expand to. A token that is long and named often makes a string
  // much longer than the message; without a bound a few megabytes could ask for terabytes.
  size_t _fExpansionLeft = 0;
  CStrDictBatch _fBatch;  // scratch of what is not read into a batch
};

}  // namespace pysource
