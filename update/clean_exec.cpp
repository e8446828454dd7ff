#include "update/clean_exec.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

namespace th::update {
namespace {

// Kernels before 5.11 lack the flag: mark each possible descriptor by hand.
void markDescriptorsCloseOnExec() noexcept {
  if (close_range(3, ~0U, CLOSE_RANGE_CLOEXEC) == 0) return;
  rlimit limit{};
  const rlim_t last = getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 1024;
  for (rlim_t fd = 3; fd < last && fd < (1U << 20); ++fd) {
    fcntl(static_cast<int>(fd), F_SETFD, FD_CLOEXEC);
  }
}

}  // namespace

void resetInheritedState() noexcept {
  struct sigaction byDefault {};
  byDefault.sa_handler = SIG_DFL;
  sigemptyset(&byDefault.sa_mask);
  // SIGKILL, SIGSTOP and the C library's own signals refuse the change; they are default anyway.
  for (int signal = 1; signal < NSIG; ++signal) sigaction(signal, &byDefault, nullptr);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  markDescriptorsCloseOnExec();
}

}  // namespace th::update
