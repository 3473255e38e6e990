#include "pysource/host/bytebuffer.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "pysource/host/errors.h"
#include "pysource/host/strutils.h"

namespace pysource {
namespace {

// Scratch memory above this size is freed after use.
constexpr size_t kMostScratchKept = size_t{1} << 20;

// Tokens of up to this size, as nearly all are, are copied in one step of this size.
constexpr size_t kBlock = 16;

// The first size of a buffer: enough for most records.
constexpr size_t kFirstRoom = 512;

// The size to which the strings of a message may expand: this many bytes for each byte of the
// message, plus a fixed allowance. Real records expand two- to fivefold; the allowance is far
// larger than any real scope.
constexpr size_t kExpansionPerByte = 64;
constexpr size_t kExpansionAllowance = size_t{16} << 20;

[[noreturn]] void Fail(const char* what) {
  throw CValueError(std::string("encoded message: ") + what);
}

}  // namespace

void CWritableByteBuffer::WriteStr(BytesView bytes) {
  std::copy(bytes.begin(), bytes.end(), Room(bytes.size()));
  Count(bytes.size());
}

void CWritableByteBuffer::WriteLongInt(uint64_t value) {
  do {
    const auto bits = static_cast<uint8_t>(value & 0x3F);
    value >>= 6;
    WriteByte(static_cast<uint8_t>(bits + (value != 0 ? 0x40 : 0xC0)));
  } while (value != 0);
}

void CWritableByteBuffer::Reset() {
  if (static_cast<size_t>(_fLimit - _fMemory.get()) > kMostScratchKept) {
    *this = CWritableByteBuffer();
  }
  _fEnd = _fMemory.get();
}

void CWritableByteBuffer::Grow(size_t more) {
  const size_t used = size();
  const auto room_now = static_cast<size_t>(_fLimit - _fMemory.get());
  const size_t room = std::max({kFirstRoom, 2 * room_now, used + more});
  // Not make_unique, which would fill the memory with zeros.
  std::unique_ptr<char[]> memory(new char[room]);
  std::copy(_fMemory.get(), _fEnd, memory.get());
  _fMemory = std::move(memory);
  _fEnd = _fMemory.get() + used;
  _fLimit = _fMemory.get() + room;
}

void CStrDictBatch::Clear() {
  _fText.Reset();
  _fPieces.clear();
  if (_fPieces.capacity() > kMostScratchKept / sizeof(Piece)) {
    _fPieces.shrink_to_fit();
  }
  _fPlainSize = 0;
  _fDictCount = 0;
}

CArena CStrDictBatch::Finish(BytesView* plain) {
  // Items first: they need alignment, the text does not.
  const size_t items_size = _fPieces.size() * sizeof(CStrDict::Item);
  CArena arena(items_size + _fText.size());
  _fRoom = static_cast<CStrDict::Item*>(arena.Allocate(items_size, alignof(CStrDict::Item)));
  const TextView text = arena.Store(_fText.View());
  *plain = text.substr(0, _fPlainSize);
  _fTextAt = text.data() + _fPlainSize;
  _fTaken = 0;
  _fTakenPieces = 0;
  return arena;
}

CStrDict CStrDictBatch::TakeNext(const CArena& arena) {
  const size_t size = NextSize();
  if (size == 0) {
    ++_fTaken;
    return {};
  }
  CStrDict dict(arena, _fRoom, size);
  const Piece* const pieces = _fPieces.data() + _fTakenPieces;
  const char* text = _fTextAt;
  for (const Piece* piece = pieces; piece != pieces + size; ++piece) {
    const TextView name(text, piece->name_size);
    const BytesView value(text + piece->name_size, piece->value_size);
    dict.SetStored(name, value);
    text = value.data() + value.size();
  }
  _fTextAt = text;
  _fRoom += size;
  _fTakenPieces = _fDictEnds[_fTaken++];
  return dict;
}

void CEncodedByteBufferReader::SetStr(BytesView message) {
  _fAt = reinterpret_cast<const unsigned char*>(message.data());
  _fEnd = _fAt + message.size();
  _fTokenCount = 0;
  _fBlockCount = 0;
  if (_fTokens.size() > kMostScratchKept / sizeof(BytesView)) {
    _fTokens = {};
  }
  _fExpansionLeft = message.size() * kExpansionPerByte + kExpansionAllowance;
  const size_t count = ReadCount(1, "more tokens than bytes");
  if (_fTokens.size() < count) {
    _fTokens.resize(count);
  }
  const unsigned char* at = _fAt;
  for (size_t i = 0; i < count; ++i) {
    const uint64_t size = ReadIntAt(at);
    if (size > static_cast<size_t>(_fEnd - at)) {
      Fail("a token is longer than what is left");
    }
    _fTokens[i] = BytesView(reinterpret_cast<const char*>(at), static_cast<size_t>(size));
    at += size;
  }
  _fAt = at;
  _fTokenCount = count;
  _fBlockCount = count;
  while (_fBlockCount != 0 && static_cast<size_t>(reinterpret_cast<const char*>(_fEnd) -
                                                  _fTokens[_fBlockCount - 1].data()) < kBlock) {
    --_fBlockCount;
  }
}

uint64_t CEncodedByteBufferReader::ReadLongInt(const unsigned char*& at) const {
  uint64_t value = 0;
  unsigned shift = 0;
  for (;;) {
    if (at == _fEnd) {
      Fail("it ends inside an integer");
    }
    const uint64_t byte = *at++;
    if (byte < 0x40) {
      Fail("a byte below 0x40 stands inside an integer");
    }
    const uint64_t bits = byte & 0x3F;
    // If set bits are shifted out, the integer does not fit; zero bits mean a form that is longer
    // than needed.
    if (bits != 0 && (shift >= 64 || (bits << shift) >> shift != bits)) {
      Fail("an integer has more than 64 bits");
    }
    value |= shift < 64 ? bits << shift : 0;
    if (byte >= 0x80) {
      return value;
    }
    shift += shift < 64 ? 6 : 0;
  }
}

size_t CEncodedByteBufferReader::ReadCount(size_t least_item_size, const char* what) {
  const uint64_t count = ReadInt();
  if (count > static_cast<size_t>(_fEnd - _fAt) / least_item_size) {
    Fail(what);
  }
  return static_cast<size_t>(count);
}

size_t CEncodedByteBufferReader::AppendTokenizedStr(CWritableByteBuffer& out) {
  // Copies in local variables: for all the compiler knows, each stored byte could change a member.
  const unsigned char* at = _fAt;
  const unsigned char* const end = _fEnd;
  const BytesView* const tokens = _fTokens.data();
  const size_t block_count = _fBlockCount;
  size_t done = 0;                 // bytes of the string already counted in `out`
  char* begin = out.Room(kBlock);  // the bytes that are not counted yet
  char* to = begin;
  // How many bytes may be stored before the limits must be checked again.
  size_t room = std::min(out.RoomSize() - kBlock, _fExpansionLeft);
  uint64_t reference;
  do {
    if (at != end && *at >= 0x80) [[likely]] {
      reference = *at++ - 0x80U;
    } else {
      _fAt = at;
      reference = ReadInt();
      at = _fAt;
    }
    const uint64_t index = reference >> 1;
    if (index < block_count && tokens[index].size() <= std::min(room, kBlock)) [[likely]] {
      std::memcpy(to, tokens[index].data(), kBlock);  // excess bytes are overwritten later
      room -= tokens[index].size();
      to += tokens[index].size();
      continue;
    }
    if (index >= _fTokenCount) {
      Fail("a token reference names no token");
    }
    const BytesView token = tokens[index];
    if (token.size() > room) {
      const auto stored = static_cast<size_t>(to - begin);
      done += stored;
      if (token.size() > _fExpansionLeft - done) {
        Fail("its strings are out of proportion to its size");
      }
      out.Count(stored);
      begin = to = out.Room(token.size() + kBlock);
      room = std::min(out.RoomSize() - kBlock, _fExpansionLeft - done);
    }
    std::memcpy(to, token.data(), token.size());
    room -= token.size();
    to += token.size();
  } while ((reference & 1) == 0);
  const auto stored = static_cast<size_t>(to - begin);
  out.Count(stored);
  _fAt = at;
  _fExpansionLeft -= done + stored;
  return done + stored;
}

Bytes CEncodedByteBufferReader::ReadTokenizedStr() {
  _fBatch.Clear();
  AppendTokenizedStr(_fBatch._fText);
  return _fBatch._fText.ToString();
}

void CEncodedByteBufferReader::ReadTokenizedStrInto(CStrDictBatch& batch) {
  batch._fPlainSize += AppendTokenizedStr(batch._fText);
}

void CEncodedByteBufferReader::ReadStrDictInto(CStrDictBatch& batch, bool text_keys) {
  if (batch._fDictCount == CStrDictBatch::kMostDicts) {
    Fail("it has too many dictionaries");
  }
  // An item is two strings of at least one byte each.
  const size_t count = ReadCount(2, "a dictionary has more items than there are bytes");
  batch._fPieces.reserve(batch._fPieces.size() + count);
  for (size_t i = 0; i < count; ++i) {
    const size_t name_size = AppendTokenizedStr(batch._fText);
    const BytesView text = batch._fText.View();
    if (text_keys && !IsUtf8(text.substr(text.size() - name_size))) {
      Fail("a name is not UTF-8");
    }
    const size_t value_size = AppendTokenizedStr(batch._fText);
    if (batch._fText.size() > std::numeric_limits<uint32_t>::max()) {
      Fail("its strings take more than 4 GiB");
    }
    batch._fPieces.push_back({static_cast<uint32_t>(name_size), static_cast<uint32_t>(value_size)});
  }
  batch._fDictEnds[batch._fDictCount++] = batch._fPieces.size();
}

void CEncodedByteBufferReader::ReadStrDictInto(CStrDict& dict, bool text_keys) {
  _fBatch.Clear();
  ReadStrDictInto(_fBatch, text_keys);
  BytesView no_plain;
  const CArena arena = _fBatch.Finish(&no_plain);
  CStrDict read = _fBatch.TakeNext(arena);
  if (dict.empty()) {
    dict = std::move(read);
    return;
  }
  for (const auto& [name, ibytes] : read) {
    dict.Set(name, ibytes);
  }
}

}  // namespace pysource
