// A main loop that runs only when it is told to, with a clock that moves only when it is told to:
// for tests, and for programs that have a loop of their own and call RunPending from it.
#pragma once

#include <list>
#include <vector>

#include "pysource/host/velk.h"

namespace pysource::velk {

// Within one priority idle calls run in order of adding, each once a round; timers run in order of
// their time, then of adding.
class CManualLoop : public CMainLoop {
 public:
  Tag timeout_add(unsigned ms, Callback callback) override;
  void timeout_remove(Tag tag) override;
  Tag idle_add(Callback callback, int priority) override;
  void idle_remove(Tag tag) override;

  // Moves the clock, running each timer that falls due at its time.
  void Advance(unsigned ms);
  // Runs the first idle call that is pending; false when there is none.
  bool RunOneIdle();
  // Runs idle calls until none is left, at most `most` of them; returns how many ran.
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
  using Queue = std::list<Pending>;  // by order, then by time of entering

  Tag Add(Queue& queue, int64_t order, unsigned period, Callback callback);
  static void Enter(Queue& queue, Pending pending);
  void Remove(Queue& queue, Tag tag);
  // Runs the first entry, which is entered again if it asks for it and was not cancelled meanwhile.
  void RunFirst(Queue& queue);

  Queue _fTimeouts;
  Queue _fIdles;
  int64_t _fNow = 0;  // milliseconds since the loop was made
  Tag _fLastTag = 0;
  // The callbacks that are running (a callback may run the loop), zeroed when cancelled meanwhile.
  std::vector<Tag> _fRunning;
};

}  // namespace pysource::velk
