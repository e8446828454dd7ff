#pragma once
// Peer tools and the window programs run as child processes and are timed from spawn to exit.

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace th::bench {

struct Command {
  explicit Command(std::vector<std::string> args) : argv(std::move(args)) {}

  std::vector<std::string> argv;                          // argv[0] is looked up on PATH
  std::map<std::string, std::optional<std::string>> env;  // set on top of the inherited environment
  std::filesystem::path workDir;                          // empty: inherit
  std::filesystem::path input = "/dev/null";              // stdin
  std::filesystem::path output = "/dev/null";             // stdout; stderr is inherited
};

// Nanoseconds of CLOCK_MONOTONIC, the clock every process of one machine shares.
std::int64_t monotonicNs();

// Runs `command` to its end. The monotonic time just before the spawn, or nullopt when it could
// not start or did not exit with 0.
std::optional<std::int64_t> runCommand(const Command& command);

// Processor seconds this process has used so far.
double processCpuSeconds();

// What one run took: wall seconds, and processor seconds (user plus system). On a busy machine
// the processor time still compares two programs fairly when the wall time no longer does.
struct Cost {
  double wall = 0;
  double cpu = 0;
};

// The cost of one run of `command`, or nullopt as above.
std::optional<Cost> timeCommand(const Command& command);

// The cost of `work` run in this process; nullopt when it returns false.
template <typename Work>
std::optional<Cost> timeHere(Work work);

template <typename Work>
std::optional<Cost> timeHere(Work work) {
  const std::int64_t start = monotonicNs();
  const double cpuStart = processCpuSeconds();
  if (!work()) return std::nullopt;
  return Cost{static_cast<double>(monotonicNs() - start) / 1e9, processCpuSeconds() - cpuStart};
}

}  // namespace th::bench
