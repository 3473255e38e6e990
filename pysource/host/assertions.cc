#include "pysource/host/assertions.h"

#include <atomic>
#include <string>

#include "pysource/host/errors.h"

namespace pysource {
namespace {

// Atomic, because worker threads build records, and so check assertions, while the main thread may
// turn them on or off.
std::atomic<bool> gAssertionsActive{true};

}  // namespace

bool AssertionsActive() noexcept { return gAssertionsActive.load(std::memory_order_relaxed); }

bool SetAssertionsActive(bool active) noexcept {
  return gAssertionsActive.exchange(active, std::memory_order_relaxed);
}

void FailAssertion(std::string_view text, const char* file, int line) {
  throw CAssertionError(std::string(text), std::string(file) + ":" + std::to_string(line));
}

}  // namespace pysource
