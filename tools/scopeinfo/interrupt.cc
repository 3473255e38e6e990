#include "tools/scopeinfo/interrupt.h"

#include <csignal>

namespace pysource::tools {
namespace {

volatile std::sig_atomic_t interrupted = 0;

void OnSignal(int /*signal*/) { interrupted = 1; }

}  // namespace

void WatchForInterrupt() {
  struct sigaction action {};
  action.sa_handler = OnSignal;
  action.sa_flags = static_cast<int>(SA_RESETHAND | SA_RESTART);
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool IsInterrupted() { return interrupted != 0; }

}  // namespace pysource::tools
