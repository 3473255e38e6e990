// Memory use by owner, for reports of long-lived processes.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "pysource/host/text.h"

namespace pysource {

// An owner, the bytes that it holds itself, and its parts. Counts the bytes that were requested
// from the allocator, without its overhead.
struct CMemoryUse {
  Text name;
  size_t own = 0;
  std::vector<CMemoryUse> parts;

  size_t Total() const {
    size_t total = own;
    for (const CMemoryUse& part : parts) {
      total += part.Total();
    }
    return total;
  }
};

// The bytes of a text outside its own object.
inline size_t HeapUse(const Text& text) {
  // A short text is stored in the object itself.
  static const size_t inside = Text().capacity();
  return text.capacity() <= inside ? 0 : text.capacity() + 1;
}

inline size_t HeapUse(const TextSet& set) {
  // A node holds a link, the text and its hash.
  size_t bytes = set.bucket_count() * sizeof(void*);
  for (const Text& text : set) {
    bytes += 2 * sizeof(void*) + sizeof(Text) + HeapUse(text);
  }
  return bytes;
}

}  // namespace pysource
