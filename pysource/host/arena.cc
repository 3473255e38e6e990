#include "pysource/host/arena.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace pysource {
namespace {

// The first chunk of an arena that starts empty. A record has about ten names of about ten bytes.
constexpr size_t kFirstChunk = 512;
constexpr size_t kLargestChunk = size_t{1} << 16;

char* AlignUp(char* at, size_t alignment) {
  const auto address = reinterpret_cast<uintptr_t>(at);
  return at + ((alignment - address % alignment) % alignment);
}

}  // namespace

CArena::CArena(size_t bytes) {
  char* memory = static_cast<char*>(::operator new(sizeof(Head) + bytes));
  char* const start = memory + sizeof(Head);
  _fChunks = new (memory) Head{nullptr, start, start + bytes, sizeof(Head) + bytes, 1};
}

void* CArena::Allocate(size_t bytes, size_t alignment) {
  if (_fChunks == nullptr) {
    *this = CArena(std::max(bytes + alignment, kFirstChunk));
  }
  char* at = AlignUp(_fChunks->free, alignment);
  if (at > _fChunks->end || static_cast<size_t>(_fChunks->end - at) < bytes) {
    AddChunk(bytes + alignment);
    at = AlignUp(_fChunks->free, alignment);
  }
  _fChunks->free = at + bytes;
  return at;
}

TextView CArena::Store(TextView text) {
  if (text.empty()) {
    return {};
  }
  char* const copy = static_cast<char*>(Allocate(text.size(), 1));
  std::memcpy(copy, text.data(), text.size());
  return {copy, text.size()};
}

void CArena::AddChunk(size_t bytes) {
  // As large as everything before it, so that the waste stays smaller than what is used.
  const size_t size = std::max(bytes, std::min(_fChunks->total, kLargestChunk));
  char* memory = static_cast<char*>(::operator new(sizeof(Chunk) + size));
  _fChunks->newest = new (memory) Chunk{_fChunks->newest};
  _fChunks->free = memory + sizeof(Chunk);
  _fChunks->end = _fChunks->free + size;
  _fChunks->total += sizeof(Chunk) + size;
}

void CArena::Free() noexcept {
  Chunk* chunk = _fChunks->newest;
  while (chunk != nullptr) {
    Chunk* const older = chunk->older;
    ::operator delete(chunk);
    chunk = older;
  }
  ::operator delete(_fChunks);
}

}  // namespace pysource
