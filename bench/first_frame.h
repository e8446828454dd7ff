#pragma once
// How the window programs of the start-up figure report their first frame: the monotonic clock
// in nanoseconds on stdout, then the process ends at once.

#include <time.h>
#include <unistd.h>

#include <cstdio>

namespace th::bench {

[[noreturn]] inline void reportFirstFrameAndExit(bool presented) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  std::printf("%lld\n", static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec);
  std::fflush(stdout);
  _exit(presented ? 0 : 1);
}

}  // namespace th::bench
