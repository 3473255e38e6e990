// The main loop on GLib's: what the standalone host runs on, and an editor that runs GLib already
// can share its own with.
//
// Timers, idle calls and posted work are sources of one GMainContext. All of it belongs to the
// thread that runs the context, but for PostFromThread, which is how worker threads hand results
// back. What a callback throws is reported and ends that callback; it never crosses GLib's frames.
// The destructor takes every source of this object out of the context, so neither a callback nor
// what it holds is left behind.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include "pysource/host/velk.h"

// What GLib calls it; its headers stay out of ours.
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
  // Works on `context`, of which it keeps a reference; null is the default context, as everywhere
  // in GLib.
  explicit CGlibMainLoop(GMainContext* context = nullptr);
  // May run inside a callback, though not inside Run. No other thread may still post.
  ~CGlibMainLoop() override;
  CGlibMainLoop(const CGlibMainLoop&) = delete;
  CGlibMainLoop& operator=(const CGlibMainLoop&) = delete;

  // A timer that is due runs before any idle call. A period counts from the last run, so the runs
  // that a busy loop misses do not pile up.
  velk::Tag timeout_add(unsigned ms, velk::Callback callback) override;
  void timeout_remove(velk::Tag tag) override;
  // The priorities of velk are GLib's.
  velk::Tag idle_add(velk::Callback callback, int priority) override;
  void idle_remove(velk::Tag tag) override;

  // Runs `work` once on the loop's thread, ahead of idle calls and in order of posting, and wakes
  // the loop for it. Safe to call from any thread.
  void PostFromThread(std::function<void()> work);

  // Runs callbacks until Quit. A callback may call it again; Quit ends the innermost run.
  void Run();
  // Ends Run when the callback that calls this is done; without a run in progress it does nothing.
  // Other threads post a call of it.
  void Quit();
  // Runs what is due; with `may_block` it waits until something is. Returns whether anything ran.
  bool Iterate(bool may_block);

  // How many timers, idle calls and posted pieces of work are still to run.
  size_t PendingCount() const;
  GMainContext* Context() const;

 private:
  class CImpl;
  std::unique_ptr<CImpl> _fImpl;
};

}  // namespace pysource::standalone
