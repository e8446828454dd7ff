#include "bench/timed_process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>

#include <cstring>

extern char** environ;

namespace th::bench {
namespace {

using Changes = std::map<std::string, std::optional<std::string>>;

// This process's environment with `changes` applied, as NAME=VALUE texts.
std::vector<std::string> environmentWith(const Changes& changes) {
  std::vector<std::string> env;
  for (char** entry = environ; *entry != nullptr; ++entry)
    if (!changes.contains(std::string(*entry, std::strcspn(*entry, "=")))) env.emplace_back(*entry);
  for (const auto& [name, value] : changes)
    if (value) env.push_back(name + "=" + *value);
  return env;
}

// The null-terminated array that posix_spawn wants; valid while `texts` lives unchanged.
std::vector<char*> execArray(std::vector<std::string>& texts) {
  std::vector<char*> array;
  for (std::string& text : texts) array.push_back(text.data());
  array.push_back(nullptr);
  return array;
}

double seconds(const rusage& usage) {
  const auto of = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
  return of(usage.ru_utime) + of(usage.ru_stime);
}

// Spawns `command` and waits for it; the spawn time and the child's resource usage.
std::optional<std::int64_t> spawnAndWait(const Command& command, rusage& usage) {
  std::vector<std::string> args = command.argv;
  std::vector<std::string> env = environmentWith(command.env);
  std::vector<char*> argp = execArray(args), envp = execArray(env);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, command.input.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, command.output.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (!command.workDir.empty())
    posix_spawn_file_actions_addchdir_np(&actions, command.workDir.c_str());
  const std::int64_t start = monotonicNs();
  pid_t pid = 0;
  const int spawned = posix_spawnp(&pid, argp[0], &actions, nullptr, argp.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  if (spawned != 0 || wait4(pid, &status, 0, &usage) != pid) return std::nullopt;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return std::nullopt;
  return start;
}

}  // namespace

double processCpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

std::int64_t monotonicNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

std::optional<std::int64_t> runCommand(const Command& command) {
  rusage usage{};
  return spawnAndWait(command, usage);
}

std::optional<Cost> timeCommand(const Command& command) {
  rusage usage{};
  const std::optional<std::int64_t> start = spawnAndWait(command, usage);
  if (!start) return std::nullopt;
  return Cost{static_cast<double>(monotonicNs() - *start) / 1e9, seconds(usage)};
}

}  // namespace th::bench
