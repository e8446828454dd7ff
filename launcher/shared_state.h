#pragma once
// The record shared by the UI thread and the update worker, and the UI's per-frame copy of it.
// Included only by the launcher's own source and its tests, hence the unnamed namespace.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace {

enum class JobState : std::int32_t {
  Starting = 0,
  Checking = 1,
  Updating = 2,
  Ready = 3,
  ServiceUnavailable = 4,
  Failed = 5,
  Restarting = 6,
};

// Every field is guarded by `mutex`. A state change and its status and detail lines are always
// written in one locked section so the UI never sees them apart.
struct Shared {
  std::mutex mutex;
  JobState state = JobState::Starting;
  std::string status = "STARTING...";
  std::string detail;
  std::string latestVersion;
  std::string releaseNotes;
  std::uint64_t progressDone = 0;
  std::uint64_t progressTotal = 0;
  bool updateAvailable = false;
  bool updateRequired = false;
  bool busy = false;
  bool quitRequested = false;
};

struct Snapshot {
  JobState state = JobState::Starting;
  std::string status;
  std::string detail;
  std::string latestVersion;
  std::string releaseNotes;
  std::uint64_t progressDone = 0;
  std::uint64_t progressTotal = 0;
  bool updateAvailable = false;
  bool updateRequired = false;
  bool busy = false;
  bool quitRequested = false;
};

// A consistent copy taken under the lock; a failed lock throws std::system_error.
inline Snapshot snapshot(Shared& shared) {
  std::lock_guard lock(shared.mutex);
  return Snapshot{shared.state,         shared.status,          shared.detail,
                  shared.latestVersion, shared.releaseNotes,    shared.progressDone,
                  shared.progressTotal, shared.updateAvailable, shared.updateRequired,
                  shared.busy,          shared.quitRequested};
}

// Stores every (done, total) byte count the update engine reports, unfiltered; runs on whichever
// thread reports it.
inline std::function<void(std::size_t, std::size_t)> progressSink(Shared& shared) {
  Shared* const target = &shared;
  return [target](std::size_t done, std::size_t total) {
    std::lock_guard lock(target->mutex);
    target->progressDone = done;
    target->progressTotal = total;
  };
}

}  // namespace
