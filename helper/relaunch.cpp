#include "helper/relaunch.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "update/clean_exec.h"

namespace th::helper {
namespace {

// The child reports a failed exec through a close-on-exec pipe: a successful exec closes it
// without a byte, so the parent learns the outcome without waiting for the program itself.
[[noreturn]] void execInChild(const std::string& folder, const std::string& file,
                              const std::string& name, int reportFd) {
  update::resetInheritedState();
  setsid();
  int failure = 0;
  if (chdir(folder.c_str()) != 0) {
    failure = errno;
  } else {
    execl(file.c_str(), name.c_str(), static_cast<char*>(nullptr));
    failure = errno;
  }
  [[maybe_unused]] const ssize_t written = write(reportFd, &failure, sizeof failure);
  _exit(127);
}

}  // namespace

bool relaunch(const std::filesystem::path& program, std::string& error) {
  std::error_code ignored;
  const std::filesystem::path absolute = std::filesystem::absolute(program, ignored);
  const std::string folder = absolute.parent_path().string();
  const std::string file = absolute.string();
  const std::string name = absolute.filename().string();
  int report[2];
  if (pipe2(report, O_CLOEXEC) != 0) {
    error = "relaunch_fork_failed";
    return false;
  }
  const pid_t pid = fork();
  if (pid == 0) execInChild(folder, file, name, report[1]);
  close(report[1]);
  if (pid < 0) {
    close(report[0]);
    error = "relaunch_fork_failed";
    return false;
  }
  int failure = 0;
  ssize_t got = 0;
  do {
    got = read(report[0], &failure, sizeof failure);
  } while (got < 0 && errno == EINTR);
  close(report[0]);
  if (got == static_cast<ssize_t>(sizeof failure)) {
    waitpid(pid, nullptr, 0);
    error = "relaunch_exec_failed:" + std::string(std::strerror(failure));
    return false;
  }
  return true;
}

}  // namespace th::helper
