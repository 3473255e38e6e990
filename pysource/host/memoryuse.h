// Who holds how much memory: what reports of long-lived processes are made of.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "pysource/host/text.h"

namespace pysource {

// An owner with what it holds itself and what its parts hold, in bytes as asked of the allocator,
// whose own overhead is not in it.
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

// What a text has outside of its own object.
inline size_t HeapUse(const Text& text) {
  // A short text lies in the object itself.
  static const size_t inside = Text().capacity();
  return text.capacity() <= inside ? 0 : text.capacity() + 1;
}

inline size_t HeapUse(const TextSet& set) {
  // A node is a link, the text and its hash.
  size_t bytes = set.bucket_count() * sizeof(void*);
  for (const Text& text : set) {
    bytes += 2 * sizeof(void*) + sizeof(Text) + HeapUse(text);
  }
  return bytes;
}

}  // namespace pysource
