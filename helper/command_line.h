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

// What a command line asks for before any hand-off is parsed: "--help" (or "-h") or "--version"
// anywhere on it, the first of them deciding. No path the launcher passes is spelt so.
enum class Request { HandOff, Help, Version };
Request requestOf(int argc, const char* const* argv);

// For a person who came across the program: what it is for, then the usage.
std::string helpText();
std::string versionText();

}  // namespace th::helper
