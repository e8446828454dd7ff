#include "helper/wait_for_exit.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <system_error>
#include <thread>

namespace th::helper {
namespace {

constexpr auto kPollInterval = std::chrono::milliseconds(50);

bool processGone(pid_t pid) { return kill(pid, 0) != 0 && errno == ESRCH; }

// When the launcher quit before the helper started, the helper already belongs to a reaper
// (init or a session's subreaper), which will not exit: only a parent running the launcher's
// own file is worth waiting for.
bool parentIsLauncher(pid_t parent, const std::filesystem::path& launcher) {
  if (parent <= 1) return false;
  std::error_code error;
  const bool same =
      std::filesystem::equivalent("/proc/" + std::to_string(parent) + "/exe", launcher, error);
  return same && !error;
}

bool pollUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(kPollInterval);
  }
  return true;
}

}  // namespace

void waitForLauncherExit(pid_t waitPid, const std::filesystem::path& launcher,
                         std::chrono::milliseconds limit, const HelperLog& log) {
  std::function<bool()> done;
  std::string what;
  if (waitPid == getpid()) {
    const pid_t parent = getppid();
    if (!parentIsLauncher(parent, launcher)) {
      log.line("launcher already gone (parent " + std::to_string(parent) + ")");
      return;
    }
    done = [parent] { return getppid() != parent; };
    what = "launcher (parent " + std::to_string(parent) + ")";
  } else {
    done = [waitPid] { return processGone(waitPid); };
    what = "process " + std::to_string(waitPid);
  }
  log.line("waiting for " + what + " to exit");
  if (pollUntil(done, limit)) {
    log.line(what + " exited");
  } else {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(limit).count();
    log.line(what + " still running after " + std::to_string(seconds) + " s; replacing anyway");
  }
}

}  // namespace th::helper
