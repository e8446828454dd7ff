#pragma once

#include <cstdio>
#include <cstdlib>

// Aborts with the broken invariant so that libFuzzer records the input as a crash.
#define TH_FUZZ_CHECK(condition)                                                              \
  do {                                                                                        \
    if (!(condition)) {                                                                       \
      std::fprintf(stderr, "invariant broken: %s (%s:%d)\n", #condition, __FILE__, __LINE__); \
      std::abort();                                                                           \
    }                                                                                         \
  } while (false)
