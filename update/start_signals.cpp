#include "update/start_signals.h"

#include <signal.h>

namespace th::update {
namespace {

// Written once in `main` before any other thread exists, only read afterwards (in forked
// children); zero is the empty set.
sigset_t ignoredAtStart;
sigset_t maskAtStart;

}  // namespace

void recordStartSignals() noexcept {
  sigemptyset(&ignoredAtStart);
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction current {};
    if (sigaction(signal, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) == 0 &&
        current.sa_handler == SIG_IGN) {
      sigaddset(&ignoredAtStart, signal);
    }
  }
  sigprocmask(SIG_SETMASK, nullptr, &maskAtStart);
}

void restoreStartSignals() noexcept {
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction atStart {};
    atStart.sa_handler = sigismember(&ignoredAtStart, signal) == 1 ? SIG_IGN : SIG_DFL;
    sigemptyset(&atStart.sa_mask);
    // SIGKILL, SIGSTOP and the C library's own signals refuse the change; they are default anyway.
    sigaction(signal, &atStart, nullptr);
  }
  sigprocmask(SIG_SETMASK, &maskAtStart, nullptr);
}

}  // namespace th::update
