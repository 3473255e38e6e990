#include "pysource/host/manualloop.h"

#include <algorithm>
#include <utility>

namespace pysource::velk {

Tag CManualLoop::timeout_add(unsigned ms, Callback callback) {
  return Add(_fTimeouts, _fNow + ms, ms, std::move(callback));
}
void CManualLoop::timeout_remove(Tag tag) { Remove(_fTimeouts, tag); }
Tag CManualLoop::idle_add(Callback callback, int priority) {
  return Add(_fIdles, priority, 0, std::move(callback));
}
void CManualLoop::idle_remove(Tag tag) { Remove(_fIdles, tag); }

void CManualLoop::Advance(unsigned ms) {
  const int64_t until = _fNow + ms;
  while (!_fTimeouts.empty() && _fTimeouts.front().order <= until) {
    _fNow = std::max(_fNow, _fTimeouts.front().order);
    RunFirst(_fTimeouts);
  }
  // A callback may have moved the clock further.
  _fNow = std::max(_fNow, until);
}

bool CManualLoop::RunOneIdle() {
  if (_fIdles.empty()) {
    return false;
  }
  RunFirst(_fIdles);
  return true;
}

size_t CManualLoop::RunIdle(size_t most) {
  size_t ran = 0;
  while (ran < most && RunOneIdle()) {
    ++ran;
  }
  return ran;
}

Tag CManualLoop::Add(Queue& queue, int64_t order, unsigned period, Callback callback) {
  const Tag tag = ++_fLastTag;
  Enter(queue, Pending{tag, order, period, std::move(callback)});
  return tag;
}

void CManualLoop::Enter(Queue& queue, Pending pending) {
  const auto later = std::find_if(queue.begin(), queue.end(), [&](const Pending& other) {
    return other.order > pending.order;
  });
  queue.insert(later, std::move(pending));
}

void CManualLoop::Remove(Queue& queue, Tag tag) {
  queue.remove_if([&](const Pending& pending) { return pending.tag == tag; });
  std::replace(_fRunning.begin(), _fRunning.end(), tag, Tag{0});
}

void CManualLoop::RunFirst(Queue& queue) {
  Pending pending = std::move(queue.front());
  queue.pop_front();
  _fRunning.push_back(pending.tag);
  const bool again = RunCallback(pending.callback);
  const bool cancelled = _fRunning.back() == 0;
  _fRunning.pop_back();
  if (again && !cancelled) {
    // A timer of zero milliseconds advances by one millisecond, or Advance would never end.
    pending.order += std::max(pending.period, &queue == &_fTimeouts ? 1U : 0U);
    Enter(queue, std::move(pending));
  }
}

}  // namespace pysource::velk
