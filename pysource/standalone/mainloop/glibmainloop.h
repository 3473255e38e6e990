// The main loop on top of GLib's: the loop of the standalone host. An editor that already runs a
// GLib loop can share its context.
//
// Timers, idle calls and posted work are sources of one GMainContext. An exception of a callback is
// reported and ends that callback; it never crosses GLib's frames. The destructor removes every
// source of this object from the context, and with it the callbacks and what they hold.
//
// REQUIRES: only the thread that runs the context uses the loop. The one exception is
// PostFromThread, with which worker threads pass results back.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include "pysource/host/velk.h"

// GLib's own declaration, so that this header does not include GLib's.
#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreserved-identifier"
#endif
typedef struct _GMainContext GMainContext;
#ifdef __clang__
#pragma clang diagnostic pop
#endif

namespace pysource::standalone {

class CGlibMainLoop final : public velk::CMainLoop {
 public:
  // Uses `context` and keeps a reference to it; null stands for the default context, as everywhere
  // in GLib.
  explicit CGlibMainLoop(GMainContext* context = nullptr);
  // A callback may destroy the loop.
  // REQUIRES: Run is not in progress, and no other thread posts any more.
  ~CGlibMainLoop() override;
  CGlibMainLoop(const CGlibMainLoop&) = delete;
  CGlibMainLoop& operator=(const CGlibMainLoop&) = delete;

  // A timer that is due runs before any idle call. Its period starts at its last run, so a busy
  // loop that misses runs does not catch up on them.
  velk::Tag timeout_add(unsigned ms, velk::Callback callback) override;
  void timeout_remove(velk::Tag tag) override;
  // The priorities of velk are GLib's.
  velk::Tag idle_add(velk::Callback callback, int priority) override;
  void idle_remove(velk::Tag tag) override;

  // Runs `work` once on the loop's thread, before idle calls and in the order of posting, and wakes
  // the loop for it. Can be called from any thread.
  void PostFromThread(std::function<void()> work);

  // Called before each callback, for what one callback is to share; may be empty, and must not throw.
  void SetBeforeEach(std::function<void()> before);

  // Runs callbacks until Quit. A callback may call Run again.
  void Run();
  // Ends the innermost Run when the callback that calls this returns. Does nothing if no Run is in
  // progress. Other threads post a call of it.
  void Quit();
  // Runs what is due; true if anything ran. With `may_block` it first waits until something is due.
  bool Iterate(bool may_block);

  // The number of timers, idle calls and posted pieces of work that are still to run.
  size_t PendingCount() const;
  GMainContext* Context() const;

 private:
  class CImpl;
  std::unique_ptr<CImpl> _fImpl;
};

}  // namespace pysource::standalone
