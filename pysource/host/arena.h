// Memory that many small things share and that goes all at once.
//
// Names and values of a record are views into one of these. What is allocated stays where it is
// until the last handle goes, so the views stay good however the dictionaries over them grow.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_set>
#include <utility>

#include "pysource/host/text.h"

namespace pysource {

// A counted handle of one pointer; a default-made one has no memory yet and gets its first chunk
// when something is stored. Copies share the memory. The count is plain: an arena and all that
// shares it belong to one thread at a time and are handed from one thread to another as a whole.
class CArena {
 public:
  CArena() noexcept = default;
  // An arena whose first chunk holds exactly `bytes`: for a record whose size is known beforehand,
  // so that it takes one allocation.
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

  // Memory for `bytes`, aligned to `alignment` (at most that of max_align_t).
  void* Allocate(size_t bytes, size_t alignment);

  // A copy of the text, good as long as this arena.
  TextView Store(TextView text);

  // All that was allocated from the system, in bytes.
  size_t MemoryUse() const noexcept { return _fChunks == nullptr ? 0 : _fChunks->total; }
  // The same, or nothing if the memory is among `seen`, where it is noted.
  size_t MemoryUse(std::unordered_set<const void*>& seen) const {
    return _fChunks == nullptr || !seen.insert(_fChunks).second ? 0 : _fChunks->total;
  }

 private:
  struct Chunk {
    Chunk* older;
  };
  // The head stands at the start of the first chunk's memory.
  struct Head {
    Chunk* newest;  // chunks added after the first, newest first
    char* free;     // where the next allocation begins in the newest chunk
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
