#include "pysource/host/bytebuffer.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <utility>

#include "pysource/host/errors.h"
#include "pysource/host/strutils.h"

namespace pysource {
namespace {

// Scratch memory beyond this is given back after use.
constexpr size_t kMostScratchKept = size_t{1} << 20;

// What a buffer begins with: most records fit.
constexpr size_t kFirstRoom = 512;

// What the strings of a message may expand to: this much for every byte of it, and a flat
// allowance. Real records expand two- to fivefold; the allowance is far above any scope that was
// ever written.
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
  const size_t room = std::max(kFirstRoom, 2 * (used + more));
  // Not make_unique, which would fill it with zeros.
  std::unique_ptr<char[]> memory(new char[room]);
  std::copy(_fMemory.get(), _fEnd, memory.get());
  _fMemory = std::move(memory);
  _fEnd = _fMemory.get() + used;
  _fLimit = _fMemory.get() + room;
}

void CStrDictBatch::Clear() {
  _fText.clear();
  _fPieces.clear();
  if (_fText.capacity() > kMostScratchKept) {
    _fText.shrink_to_fit();
  }
  if (_fPieces.capacity() > kMostScratchKept / sizeof(Piece)) {
    _fPieces.shrink_to_fit();
  }
  _fPlainSize = 0;
  _fDictCount = 0;
}

CArena CStrDictBatch::Finish(BytesView* plain, CStrDict* dicts) {
  // Items first, since they are aligned and the text is not.
  CArena arena(_fPieces.size() * sizeof(CStrDict::Item) + _fText.size());
  size_t begin = 0;
  for (size_t i = 0; i < _fDictCount; ++i) {
    dicts[i] = _fDictEnds[i] == begin ? CStrDict() : CStrDict(arena, _fDictEnds[i] - begin);
    begin = _fDictEnds[i];
  }
  TextView text = arena.Store(_fText);
  const auto take = [&text](size_t size) {
    const TextView piece = text.substr(0, size);
    text.remove_prefix(size);
    return piece;
  };
  *plain = take(_fPlainSize);
  size_t at = 0;
  for (size_t i = 0; i < _fDictCount; ++i) {
    for (; at < _fDictEnds[i]; ++at) {
      const TextView name = take(_fPieces[at].name_size);
      dicts[i].SetStored(name, take(_fPieces[at].value_size));
    }
  }
  return arena;
}

void CEncodedByteBufferReader::SetStr(BytesView message) {
  _fAt = reinterpret_cast<const unsigned char*>(message.data());
  _fEnd = _fAt + message.size();
  _fTokens.clear();
  if (_fTokens.capacity() > kMostScratchKept / sizeof(BytesView)) {
    _fTokens.shrink_to_fit();
  }
  _fExpansionLeft = message.size() * kExpansionPerByte + kExpansionAllowance;
  const size_t count = ReadCount(1, "more tokens than bytes");
  _fTokens.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    const uint64_t size = ReadInt();
    if (size > static_cast<size_t>(_fEnd - _fAt)) {
      Fail("a token is longer than what is left");
    }
    _fTokens.emplace_back(reinterpret_cast<const char*>(_fAt), static_cast<size_t>(size));
    _fAt += size;
  }
}

uint64_t CEncodedByteBufferReader::ReadInt() {
  if (_fAt == _fEnd) {
    Fail("it ends inside an integer");
  }
  const unsigned first = *_fAt++;
  if (first >= 0x80) {
    return first - 0x80;
  }
  return ReadLongInt(first);
}

uint64_t CEncodedByteBufferReader::ReadLongInt(uint64_t first) {
  uint64_t byte = first;
  uint64_t value = 0;
  unsigned shift = 0;
  for (;;) {
    if (byte < 0x40) {
      Fail("a byte below 0x40 stands inside an integer");
    }
    const uint64_t bits = byte & 0x3F;
    // Bits that fall off the top end are an integer that does not fit; zero bits are only a longer
    // form than needed.
    if (bits != 0 && (shift >= 64 || (bits << shift) >> shift != bits)) {
      Fail("an integer has more than 64 bits");
    }
    value |= shift < 64 ? bits << shift : 0;
    if (byte >= 0x80) {
      return value;
    }
    if (_fAt == _fEnd) {
      Fail("it ends inside an integer");
    }
    shift += shift < 64 ? 6 : 0;
    byte = *_fAt++;
  }
}

size_t CEncodedByteBufferReader::ReadCount(size_t least_item_size, const char* what) {
  const uint64_t count = ReadInt();
  if (count > static_cast<size_t>(_fEnd - _fAt) / least_item_size) {
    Fail(what);
  }
  return static_cast<size_t>(count);
}

size_t CEncodedByteBufferReader::AppendTokenizedStr(Bytes& out) {
  const size_t before = out.size();
  for (;;) {
    const uint64_t reference = ReadInt();
    const uint64_t index = reference >> 1;
    if (index >= _fTokens.size()) {
      Fail("a token reference names no token");
    }
    const BytesView token = _fTokens[static_cast<size_t>(index)];
    if (token.size() > _fExpansionLeft) {
      Fail("its strings are out of proportion to its size");
    }
    _fExpansionLeft -= token.size();
    out.append(token);
    if ((reference & 1) != 0) {
      return out.size() - before;
    }
  }
}

Bytes CEncodedByteBufferReader::ReadTokenizedStr() {
  Bytes result;
  AppendTokenizedStr(result);
  return result;
}

void CEncodedByteBufferReader::ReadTokenizedStrInto(CStrDictBatch& batch) {
  batch._fPlainSize += AppendTokenizedStr(batch._fText);
}

void CEncodedByteBufferReader::ReadStrDictInto(CStrDictBatch& batch, bool text_keys) {
  if (batch._fDictCount == CStrDictBatch::kMostDicts) {
    Fail("it has too many dictionaries");
  }
  // An item is two strings, each of one byte at least.
  const size_t count = ReadCount(2, "a dictionary has more items than there are bytes");
  batch._fPieces.reserve(batch._fPieces.size() + count);
  for (size_t i = 0; i < count; ++i) {
    const size_t name_size = AppendTokenizedStr(batch._fText);
    if (text_keys && !IsUtf8(BytesView(batch._fText).substr(batch._fText.size() - name_size))) {
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
  CStrDict read;
  BytesView no_plain;
  _fBatch.Finish(&no_plain, &read);
  if (dict.empty()) {
    dict = std::move(read);
    return;
  }
  for (const auto& [name, ibytes] : read) {
    dict.Set(name, ibytes);
  }
}

}  // namespace pysource
