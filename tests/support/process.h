#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace th::test {

struct ProcessOptions {
  // Variables to set (a value) or remove (std::nullopt); the rest of the environment is inherited.
  std::map<std::string, std::optional<std::string>> env;
  std::filesystem::path workDir;  // empty: inherit
  std::chrono::milliseconds timeout{60000};
};

struct ProcessResult {
  int exitCode = -1;  // -1 when killed by a signal or the time-out
  std::string out;
  std::string err;
};

// This process's environment with `options.env` applied, as NAME=VALUE texts.
std::vector<std::string> childEnvironment(const ProcessOptions& options);
// The null-terminated pointer array that exec wants; valid while `strings` lives unchanged.
std::vector<char*> pointers(std::vector<std::string>& strings);

// Runs a program to completion (killing it after the time-out) and collects its output.
ProcessResult runProcess(const std::vector<std::string>& argv, const ProcessOptions& options = {});

// A program running in the background; killed (SIGKILL) if still running at scope end.
class ChildProcess {
 public:
  ChildProcess(const std::vector<std::string>& argv, const ProcessOptions& options = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  bool running();
  // Waits up to `timeout` for the exit; the exit code, or std::nullopt when still running
  // (or ended by a signal).
  std::optional<int> wait(std::chrono::milliseconds timeout);
  void kill(int signal);
  std::string out() const;
  std::string err() const;

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = 0;
  std::filesystem::path outPath_, errPath_;
};

// Polls `ready` every 20 ms until it holds or `timeout` passes.
template <typename Predicate>
bool waitUntil(Predicate ready, std::chrono::milliseconds timeout) {
  for (const auto deadline = std::chrono::steady_clock::now() + timeout; !ready();) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

}  // namespace th::test
