// A main loop that runs, and whose clock moves, only when its owner says so: for tests, and for
// programs with their own loop that call its operations from there.
#pragma once

#include <list>
#include <vector>

#include "pysource/host/velk.h"

namespace pysource::velk {

// Idle calls of one priority run in the order in which they were added, each once a round. Timers
// run in the order of their times, then in the order in which they were added.
class CManualLoop : public CMainLoop {
 public:
  Tag timeout_add(unsigned ms, Callback callback) override;
  void timeout_remove(Tag tag) override;
  Tag idle_add(Callback callback, int priority) override;
  void idle_remove(Tag tag) override;

  // Moves the clock forward and runs each timer that becomes due, at its time.
  void Advance(unsigned ms);
  // Runs the first pending idle call; false when there is none.
  bool RunOneIdle();
  // Runs idle calls until none is pending, but no more than `most`. Returns how many ran.
  size_t RunIdle(size_t most = 10000);

  size_t PendingIdleCount() const { return _fIdles.size(); }
  size_t PendingTimeoutCount() const { return _fTimeouts.size(); }

 private:
  struct Pending {
    Tag tag;
    int64_t order;    // due time of a timer, priority of an idle call
    unsigned period;  // of a timer, in milliseconds
    Callback callback;
  };
  using Queue = std::list<Pending>;  // sorted by `order`, then by when they were added

  Tag Add(Queue& queue, int64_t order, unsigned period, Callback callback);
  static void Enter(Queue& queue, Pending pending);
  void Remove(Queue& queue, Tag tag);
  // Runs the first entry, and adds it again if it returns true and was not cancelled meanwhile.
  void RunFirst(Queue& queue);

  Queue _fTimeouts;
  Queue _fIdles;
  int64_t _fNow = 0;  // milliseconds since the loop was made
  Tag _fLastTag = 0;
  // The tags of the running callbacks (a callback may run the loop); zero if cancelled meanwhile.
  std::vector<Tag> _fRunning;
};

}  // namespace pysource::velk
