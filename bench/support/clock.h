// The time that benchmarks measure: processor time of all threads of the process, so that other
// processes on the machine do not count.
#pragma once

#include <ctime>
#include <utility>

namespace pysource::bench {

inline double SecondsOf(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

inline double ProcessorSeconds() { return SecondsOf(CLOCK_PROCESS_CPUTIME_ID); }
inline double WallSeconds() { return SecondsOf(CLOCK_MONOTONIC); }

// The processor time of `work`, in seconds.
template <class Work>
double TimeOf(Work&& work) {
  const double start = ProcessorSeconds();
  std::forward<Work>(work)();
  return ProcessorSeconds() - start;
}

}  // namespace pysource::bench
