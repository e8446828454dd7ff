#pragma once
// The phases of one start of a window program, from the stamps it prints after its first frame
// (see first_frame.h), and their medians over many starts, printed beside a peer's.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace th::bench {

// Each phase's name and milliseconds, in the order they ran.
using StartPhases = std::vector<std::pair<std::string, double>>;

// The phases in `stamps` ("<phase> <ns>" lines after the first), the first one measured from
// `spawnedAt`; nullopt when the text holds no first frame.
std::optional<StartPhases> startPhasesOf(const std::string& stamps, std::int64_t spawnedAt);

// Phases of many starts of two programs.
struct StartPhaseMedians {
  std::vector<StartPhases> ours, peer;
  // One line per phase of ours, in its order: the medians of ours and of the peer's phase of the
  // same name ("-" where the peer has none).
  void print() const;
};

}  // namespace th::bench
