#include <cstddef>
#include <cstdint>

#include "fuzz/scanner_body.h"

// The sources are separated by the byte 0x1E.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const pysource::BytesView input(reinterpret_cast<const char*>(data), size);
  std::vector<pysource::BytesView> sources;
  for (size_t begin = 0; begin <= size;) {
    const size_t end = std::min(input.find('\x1E', begin), size);
    sources.push_back(input.substr(begin, end - begin));
    begin = end + 1;
  }
  pysource::standalone::fuzz::CheckSources(sources, size % 2 != 0);
  return 0;
}
