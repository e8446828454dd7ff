#pragma once
// The helper's command line, as the launcher's hand-off passes it.

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace th::helper {

struct HelperOptions {
  pid_t waitPid = 0;
  std::filesystem::path staged;    // the new launcher, left in the staging folder
  std::filesystem::path target;    // the launcher to replace
  std::filesystem::path relaunch;  // started once the replacement is in place
};

// "--wait-pid PID --replace STAGED --target TARGET --relaunch PROGRAM", each exactly once, in
// any order. On failure `error` names the first problem.
bool parseCommandLine(int argc, const char* const* argv, HelperOptions& options,
                      std::string& error);

std::string usageText();

}  // namespace th::helper
