// Memory for many small objects, freed all at once.
//
// The names and values of a record are views into an arena. Allocated memory does not move and
// stays until the last handle is destroyed, so the views stay valid however the dictionaries over
// them grow.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_set>
#include <utility>

#include "pysource/host/text.h"

namespace pysource {

// A counted handle of one pointer. A default-constructed one has no memory, and gets its first
// chunk when something is stored. Copies share the memory.
// REQUIRES: an arena and everything that shares it are used by one thread at a time, and are passed
// to another thread as a whole, since the count is not atomic.
class CArena {
 public:
  CArena() noexcept = default;
  // An arena whose first chunk holds exactly `bytes`, so that a record of known size takes one
  // allocation.
  explicit CArena(size_t bytes);
  CArena(const CArena& other) noexcept : _fChunks(other._fChunks) {
    if (_fChunks != nullptr) {
      ++_fChunks->users;
    }
  }
  CArena(CArena&& other) noexcept : _fChunks(std::exchange(other._fChunks, nullptr)) {}
  CArena& operator=(CArena other) noexcept {
    std::swap(_fChunks, other._fChunks);
    return *this;
  }
  ~CArena() { Release(); }

  // Memory for `bytes`, aligned to `alignment`.
  // REQUIRES: `alignment` is at most that of max_align_t.
  void* Allocate(size_t bytes, size_t alignment);

  // A copy of the text, valid as long as this arena.
  TextView Store(TextView text);

  // The bytes that were allocated from the system.
  size_t MemoryUse() const noexcept { return _fChunks == nullptr ? 0 : _fChunks->total; }
  // The same the first time, when it adds the memory to `seen`; 0 if the memory is already in
  // `seen`.
  size_t MemoryUse(std::unordered_set<const void*>& seen) const {
    return _fChunks == nullptr || !seen.insert(_fChunks).second ? 0 : _fChunks->total;
  }

 private:
  struct Chunk {
    Chunk* older;
  };
  // The head is at the start of the first chunk's memory.
  struct Head {
    Chunk* newest;  // chunks added after the first, newest first
    char* free;     // the start of the next allocation, in the newest chunk
    char* end;
    size_t total;
    uint32_t users;
  };
  void AddChunk(size_t bytes);
  void Release() noexcept {
    if (_fChunks != nullptr && --_fChunks->users == 0) {
      Free();
    }
  }
  void Free() noexcept;

  Head* _fChunks = nullptr;
};

}  // namespace pysource
