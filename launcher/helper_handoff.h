#pragma once
// A running executable cannot safely replace itself: the update helper swaps in the staged
// launcher once this process has gone, and starts it again.

#include <sys/types.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <string>

#include "launcher/shared_state.h"
#include "update/clean_exec.h"
#include "update/platform.h"

namespace {

// The child's own process ID goes to "--wait-pid"; the helper relies on that reading of it. The
// helper, and through it the restarted launcher and the game, get the signals the launcher was
// started with and the standard streams, nothing of this worker thread's.
// Every way out of the child ends in exec or _exit: 126 cannot enter the folder, 127 cannot
// execute.
inline pid_t startUpdateHelper(const std::filesystem::path& helperPath,
                               const std::filesystem::path& stagedLauncher,
                               const std::filesystem::path& launcherPath) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  th::update::resetInheritedState();
  if (chdir(helperPath.parent_path().c_str()) != 0) _exit(126);
  const std::string ownPid = std::to_string(getpid());
  execl(helperPath.c_str(), helperPath.filename().c_str(), "--wait-pid", ownPid.c_str(),
        "--replace", stagedLauncher.c_str(), "--target", launcherPath.c_str(), "--relaunch",
        launcherPath.c_str(), static_cast<char*>(nullptr));
  _exit(127);
}

// After a successful start `busy` stays set: the launcher quits and no further job may begin.
inline void handOffToUpdateHelper(Shared& shared, const std::filesystem::path& installDir,
                                  const std::filesystem::path& stagedLauncher) {
  const std::filesystem::path helperPath = installDir / th::update::helperBinaryName();
  const std::filesystem::path launcherPath = installDir / th::update::launcherBinaryName();
  const pid_t pid = startUpdateHelper(helperPath, stagedLauncher, launcherPath);
  std::lock_guard lock(shared.mutex);
  if (pid > 0) {
    shared.state = JobState::Restarting;
    shared.status = "LAUNCHER UPDATED";
    shared.detail = "RESTARTING...";
    shared.quitRequested = true;
    return;
  }
  shared.busy = false;
  shared.state = JobState::Failed;
  shared.status = "LAUNCHER SELF-UPDATE FAILED";
  shared.detail = "COULD NOT START UPDATE HELPER";
}

}  // namespace
