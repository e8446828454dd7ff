#pragma once
// Starting programs from the install folder: fork, enter the program's folder, exec.

#include <unistd.h>

#include <filesystem>

#include "update/clean_exec.h"

namespace {

// True when a child process was created. The game starts as from a shell, with the signals the
// launcher was started with and its standard streams, nothing else of the launcher's. Whether
// the program could run shows only in the child's exit status (126: cannot enter its folder,
// 127: cannot execute), which nobody collects.
inline bool launchProcess(const std::filesystem::path& executable) {
  const pid_t pid = fork();
  if (pid < 0) return false;
  if (pid > 0) return true;
  th::update::resetInheritedState();
  if (chdir(executable.parent_path().c_str()) != 0) _exit(126);
  execl(executable.c_str(), executable.filename().c_str(), static_cast<char*>(nullptr));
  _exit(127);
}

}  // namespace
