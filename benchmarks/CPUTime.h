#pragma once

// What a computation costs its own thread, for figures in which nothing waits: other processes on the machine
// then count less than on the wall clock.

#include <ctime>

namespace bench {

inline double cpuSecondsNow() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// Seconds of this thread that `calls` calls of `work` take, each.
template <typename Work>
double cpuSecondsOf(int calls, Work&& work) {
  const double begin = cpuSecondsNow();
  for (int i = 0; i < calls; ++i) work();
  return (cpuSecondsNow() - begin) / calls;
}

}  // namespace bench
