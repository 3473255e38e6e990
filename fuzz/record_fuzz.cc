#include <cstddef>
#include <cstdint>

#include "fuzz/fuzz_bodies.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  pysource::scopeinfo::fuzz::CheckRecordMessage({reinterpret_cast<const char*>(data), size});
  return 0;
}
