// Checks of the rules that callers must keep.
//
// They are active in every build. SetAssertionsActive(false) turns them off, for a host that
// prefers to continue, and for tests of both modes. What was done before a failing check stays
// done.
#pragma once

#include <string_view>

namespace pysource {

bool AssertionsActive() noexcept;

// Returns the previous setting, so that the caller can restore it.
bool SetAssertionsActive(bool active) noexcept;

[[noreturn]] void FailAssertion(std::string_view text, const char* file, int line);

// Throws CAssertionError with `text` when `holds` is false and assertions are active. Callers check
// AssertionsActive() before they compute a costly condition.
inline void Assert(bool holds, std::string_view text = {}, const char* file = __builtin_FILE(),
                   int line = __builtin_LINE()) {
  if (!holds && AssertionsActive()) [[unlikely]] {
    FailAssertion(text, file, line);
  }
}

}  // namespace pysource
