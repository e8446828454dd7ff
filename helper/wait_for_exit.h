#pragma once
// Waiting for the launcher to quit before its file is replaced.

#include <sys/types.h>

#include <chrono>
#include <filesystem>

#include "helper/helper_log.h"

namespace th::helper {

// The launcher passes the helper's own process ID (it reads it in the child after the fork);
// then the process to wait for is the helper's parent, the launcher. Any other ID is waited for
// directly. Polls for at most `limit`; after that the caller goes on anyway, since a rename
// onto the running launcher's file is safe on Linux.
void waitForLauncherExit(pid_t waitPid, const std::filesystem::path& launcher,
                         std::chrono::milliseconds limit, const HelperLog& log);

}  // namespace th::helper
