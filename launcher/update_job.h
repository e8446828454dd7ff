#pragma once
// The background update job: one check-and-update cycle per call, published into Shared.

#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "launcher/shared_state.h"

namespace {

inline void runUpdateJob(Shared& shared, const std::filesystem::path& installDir,
                         const std::string& channel, bool repair, bool elevated) {
  (void)installDir, (void)channel, (void)repair, (void)elevated;
  std::lock_guard lock(shared.mutex);
  shared.busy = false;
  shared.state = JobState::ServiceUnavailable;
  shared.status = "UPDATE SERVICE UNAVAILABLE";
  shared.detail = "update_server_not_configured // ONLINE LOGIN STILL REQUIRED";
}

// Starts a job unless one is running; never waits for it.
inline void beginUpdateJob(Shared& shared, const std::filesystem::path& installDir,
                           const std::string& channel, bool repair, bool elevated) {
  {
    std::lock_guard lock(shared.mutex);
    if (shared.busy) return;
    shared.busy = true;
    shared.state = JobState::Checking;
    shared.status = repair ? "CHECKING GAME FILES..." : "CHECKING FOR UPDATES...";
    shared.detail.clear();
    shared.progressDone = 0;
    shared.progressTotal = 0;
  }
  std::thread([sharedPtr = &shared, installDir, channel, repair, elevated] {
    runUpdateJob(*sharedPtr, installDir, channel, repair, elevated);
  }).detach();
}

}  // namespace
