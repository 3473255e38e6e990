// The main loop as the module sees it: timers and idle calls on the one thread that everything runs
// on.
//
// The functions use the current loop, which the host sets once at the start. An embedder derives
// from CMainLoop to wrap its own event loop; tests use CManualLoop (manualloop.h); the standalone
// host uses GLib's main loop.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "pysource/host/text.h"

namespace pysource::velk {

// Identifies a pending timer or idle call. Never zero, and never used twice by one loop.
using Tag = uint64_t;

// Runs on the main thread; returns true to be called again. If it throws, the loop catches the
// exception, reports it through CriticalLog and does not call it again.
using Callback = std::function<bool()>;

// Lower numbers run first.
inline constexpr int PRIORITY_HIGH_IDLE = 100;
inline constexpr int PRIORITY_DEFAULT_IDLE = 200;
inline constexpr int PRIORITY_LOW_IDLE = 300;  // the lowest

// The interface that a host's loop implements. A callback may cancel itself and others, and add new
// ones.
class CMainLoop {
 public:
  virtual ~CMainLoop();
  // Runs `callback` after `ms` milliseconds, and again every `ms` as long as it returns true.
  virtual Tag timeout_add(unsigned ms, Callback callback) = 0;
  // Cancels the timer. An unknown or finished tag is not an error.
  virtual void timeout_remove(Tag tag) = 0;
  // Runs `callback` when there is nothing else to do, and again as long as it returns true.
  virtual Tag idle_add(Callback callback, int priority) = 0;
  virtual void idle_remove(Tag tag) = 0;
};

// Sets the current loop (null for none) and returns the one before. Not owned.
// REQUIRES: the loop outlives everything that uses it.
CMainLoop* SetMainLoop(CMainLoop* loop);
// The current loop. Throws CTypeError when there is none.
CMainLoop& GetMainLoop();

Tag timeout_add(unsigned ms, Callback callback);
void timeout_remove(Tag tag);
Tag idle_add(Callback callback, int priority = PRIORITY_DEFAULT_IDLE);
void idle_remove(Tag tag);

// Wraps a callable without arguments as a handler of any signal; it ignores the arguments.
template <class Callable>
auto NoArgCallback(Callable callable) {
  return [callable = std::move(callable)](auto&&...) mutable { callable(); };
}

// Calls `callback` the way every loop must: returns its result, or reports what it threw and
// returns false.
bool RunCallback(const Callback& callback);

// The path of the executable or shared library that contains this layer; empty if unknown.
std::string ModulePath();

}  // namespace pysource::velk
