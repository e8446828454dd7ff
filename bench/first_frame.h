#pragma once
// How the window programs of the start-up figure report their first frame: the monotonic clock
// in nanoseconds on stdout, then one line per moment stamped on the way ("<phase> <ns>", each
// the end of the phase it names, "present" last), then the process ends at once.

#include <time.h>
#include <unistd.h>

#include <cstdio>

namespace th::bench {

inline long long monotonicNow() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec;
}

struct StartStamps {
  static constexpr int kMost = 16;
  const char* phase[kMost];
  long long endedAt[kMost];
  int count = 0;
};

inline StartStamps& startStamps() {
  static StartStamps stamps;
  return stamps;
}

// Ends the phase named `phase` now.
inline void stamp(const char* phase) {
  StartStamps& stamps = startStamps();
  if (stamps.count == StartStamps::kMost) return;
  stamps.phase[stamps.count] = phase;
  stamps.endedAt[stamps.count++] = monotonicNow();
}

[[noreturn]] inline void reportFirstFrameAndExit(bool presented) {
  stamp("present");
  const StartStamps& stamps = startStamps();
  std::printf("%lld\n", stamps.endedAt[stamps.count - 1]);
  for (int i = 0; i < stamps.count; ++i)
    std::printf("%s %lld\n", stamps.phase[i], stamps.endedAt[i]);
  std::fflush(stdout);
  _exit(presented ? 0 : 1);
}

}  // namespace th::bench
