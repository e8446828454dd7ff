#include "bench/start_phases.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

namespace th::bench {
namespace {

// The median of the phase named `name` over `runs`, or a negative number when it never ran.
double medianOf(const std::vector<StartPhases>& runs, const std::string& name) {
  std::vector<double> values;
  for (const StartPhases& run : runs)
    for (const auto& [phase, ms] : run)
      if (phase == name) values.push_back(ms);
  if (values.empty()) return -1;
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

std::optional<StartPhases> startPhasesOf(const std::string& stamps, std::int64_t spawnedAt) {
  std::istringstream lines(stamps);
  std::string line;
  if (!std::getline(lines, line) || std::strtoll(line.c_str(), nullptr, 10) <= 0) return {};
  StartPhases phases;
  long long previous = spawnedAt;
  while (std::getline(lines, line)) {
    const std::size_t blank = line.rfind(' ');
    if (blank == std::string::npos) continue;
    const long long endedAt = std::strtoll(line.c_str() + blank + 1, nullptr, 10);
    phases.emplace_back(line.substr(0, blank), static_cast<double>(endedAt - previous) / 1e6);
    previous = endedAt;
  }
  return phases;
}

void StartPhaseMedians::print() const {
  if (ours.empty()) return;
  std::printf("     %-40s %12s %12s\n", "phases (medians)", "launcher", "bare window");
  for (const auto& [name, ms] : ours.front()) {
    const double peerMs = medianOf(peer, name);
    std::printf("     %-40s %9.2f ms", name.c_str(), medianOf(ours, name));
    if (peerMs >= 0)
      std::printf(" %9.2f ms\n", peerMs);
    else
      std::printf(" %12s\n", "-");
  }
  std::fflush(stdout);
}

}  // namespace th::bench
