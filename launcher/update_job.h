#pragma once
// The background update job: one check-and-update cycle per call, published into Shared.
// The mutex is held only while publishing, never across engine, file or process work.

#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "launcher/helper_handoff.h"
#include "launcher/shared_state.h"
#include "launcher/trim.h"
#include "launcher/version_marker.h"
#include "update/text_file.h"
#include "update/updater.h"
#include "update/version.h"

namespace {

// The job started with the window waits this long before its first step. Its check streams the
// whole install through the caches, which slowed the first frame; the window needs only a few
// milliseconds after the job starts, the check takes seconds. The worker keeps the launcher's
// priority: a thread's nice value passes to what it forks, and the hand-off forks the helper,
// the restarted launcher and so the game from this thread.
constexpr std::chrono::milliseconds kStartUpJobPause{100};

// What a successful check means for this installation.
struct CheckOutcome {
  std::string installed;
  int order = 0;  // compareVersion(installed, manifest version)
  bool needsUpdate = false;
  bool mustUpdateFirst = false;
};

// Writes a phase; the caller holds the lock.
inline void setPhase(Shared& shared, JobState state, std::string status, std::string detail) {
  shared.state = state;
  shared.status = std::move(status);
  shared.detail = std::move(detail);
}

// Every end of a job, except the hand-off to the helper, clears `busy` with its final phase.
inline void endJob(Shared& shared, JobState state, std::string status, std::string detail) {
  setPhase(shared, state, std::move(status), std::move(detail));
  shared.busy = false;
}

inline std::string serverAddress(const std::filesystem::path& installDir) {
  return trim(th::update::readTextFile(installDir / "data" / "update_server.txt"));
}

// A mandatory release, or an installation below the minimum the online world accepts, must be
// updated before the game may start.
inline bool mustUpdateBeforePlaying(const th::update::Manifest& manifest,
                                    const std::string& installed) {
  if (manifest.mandatory) return true;
  return !manifest.minimumOnlineVersion.empty() &&
         th::update::compareVersion(installed, manifest.minimumOnlineVersion) < 0;
}

inline CheckOutcome compareWithInstalled(const std::filesystem::path& installDir,
                                         const th::update::UpdatePlan& plan) {
  CheckOutcome outcome;
  outcome.installed = localVersion(installDir);
  outcome.order = th::update::compareVersion(outcome.installed, plan.manifest.version);
  const bool filesPending = outcome.order == 0 && !plan.files.empty();
  outcome.needsUpdate = outcome.order < 0 || filesPending;
  outcome.mustUpdateFirst = mustUpdateBeforePlaying(plan.manifest, outcome.installed);
  return outcome;
}

inline void publishCheckResult(Shared& shared, const th::update::UpdatePlan& plan,
                               const CheckOutcome& outcome) {
  std::lock_guard lock(shared.mutex);
  shared.latestVersion = plan.manifest.version;
  shared.releaseNotes = plan.manifest.releaseNotes;
  shared.updateAvailable = outcome.needsUpdate;
  if (outcome.order > 0) {
    shared.updateRequired = false;
    shared.progressTotal = 0;
  } else {
    shared.updateRequired = outcome.mustUpdateFirst;
    shared.progressTotal = outcome.needsUpdate ? plan.totalBytes : 0;
  }
}

inline void publishServiceUnavailable(Shared& shared, const std::string& error) {
  std::lock_guard lock(shared.mutex);
  endJob(shared, JobState::ServiceUnavailable, "UPDATE SERVICE UNAVAILABLE",
         error + " // ONLINE LOGIN STILL REQUIRED");
}

// A downgrade is never applied, whatever the server offers.
inline void publishDowngradeBlocked(Shared& shared, const std::string& installed,
                                    const std::string& serverVersion) {
  std::lock_guard lock(shared.mutex);
  endJob(shared, JobState::Ready, "READY TO PLAY",
         "INSTALLED " + installed + " // SERVER " + serverVersion + " // DOWNGRADE BLOCKED");
  shared.updateAvailable = false;
}

// `updateRequired` stays as the check set it: a mandatory release keeps the game locked even
// when nothing is missing.
inline void publishUpToDate(Shared& shared, const std::string& installed,
                            const std::string& channel) {
  std::lock_guard lock(shared.mutex);
  endJob(shared, JobState::Ready, "READY TO PLAY", "VERSION " + installed + " // " + channel);
}

inline void publishUpdating(Shared& shared, std::size_t fileCount, bool repair) {
  std::lock_guard lock(shared.mutex);
  setPhase(shared, JobState::Updating, repair ? "REPAIRING GAME FILES..." : "DOWNLOADING UPDATE...",
           std::to_string(fileCount) + " FILES REQUIRE UPDATE");
}

inline void publishApplyFailed(Shared& shared, const std::string& error) {
  std::lock_guard lock(shared.mutex);
  endJob(shared, JobState::Failed, "UPDATE FAILED - TRY AGAIN", error);
}

// The marker is what the next check compares against, so a stale one keeps the update offered.
inline void publishMarkerMismatch(Shared& shared, const std::string& expected,
                                  const std::string& found) {
  std::lock_guard lock(shared.mutex);
  endJob(shared, JobState::Failed, "VERSION MARKER UPDATE FAILED",
         "EXPECTED " + expected + " // FOUND " + found);
  shared.updateAvailable = true;
}

inline void publishInstalled(Shared& shared, const std::string& installed,
                             const std::string& manifestVersion) {
  std::lock_guard lock(shared.mutex);
  endJob(shared, JobState::Ready, "READY TO PLAY", "INSTALLED VERSION " + installed);
  shared.latestVersion = manifestVersion;
  shared.updateAvailable = false;
  shared.updateRequired = false;
  shared.progressDone = shared.progressTotal;
}

// Downloads and installs the plan, then checks that the marker now names the manifest's version.
inline void applyUpdate(Shared& shared, th::update::Updater& updater,
                        const th::update::UpdatePlan& plan, bool repair) {
  publishUpdating(shared, plan.files.size(), repair);
  std::string error;
  std::filesystem::path stagedLauncher;
  if (!updater.apply(plan, progressSink(shared), error, &stagedLauncher)) {
    publishApplyFailed(shared, error);
    return;
  }
  if (!stagedLauncher.empty()) {
    handOffToUpdateHelper(shared, updater.root, stagedLauncher);
    return;
  }
  const std::string after = localVersion(updater.root);
  if (th::update::compareVersion(after, plan.manifest.version) != 0) {
    publishMarkerMismatch(shared, plan.manifest.version, after);
    return;
  }
  publishInstalled(shared, after, plan.manifest.version);
}

// `elevated` is carried into every job but changes nothing in it; `repair` changes only wording.
inline void runUpdateJob(Shared& shared, const std::filesystem::path& installDir,
                         const std::string& channel, bool repair, bool elevated) {
  (void)elevated;
  th::update::Updater updater(installDir);
  updater.server = serverAddress(installDir);
  th::update::UpdatePlan plan;
  std::string error;
  if (!updater.check(channel, plan, error)) {
    publishServiceUnavailable(shared, error);
    return;
  }
  const CheckOutcome outcome = compareWithInstalled(installDir, plan);
  publishCheckResult(shared, plan, outcome);
  if (outcome.order > 0) {
    publishDowngradeBlocked(shared, outcome.installed, plan.manifest.version);
  } else if (!outcome.needsUpdate) {
    publishUpToDate(shared, outcome.installed, channel);
  } else {
    applyUpdate(shared, updater, plan, repair);
  }
}

// Starts a job unless one is running; never waits for it.
inline void beginUpdateJob(Shared& shared, const std::filesystem::path& installDir,
                           const std::string& channel, bool repair, bool elevated) {
  bool atStartUp = false;
  {
    std::lock_guard lock(shared.mutex);
    if (shared.busy) return;
    atStartUp = shared.state == JobState::Starting;
    shared.busy = true;
    shared.state = JobState::Checking;
    shared.status = repair ? "CHECKING GAME FILES..." : "CHECKING FOR UPDATES...";
    shared.detail.clear();
    shared.progressDone = 0;
    shared.progressTotal = 0;
  }
  std::thread([sharedPtr = &shared, installDir, channel, repair, elevated, atStartUp] {
    if (atStartUp) std::this_thread::sleep_for(kStartUpJobPause);
    runUpdateJob(*sharedPtr, installDir, channel, repair, elevated);
  }).detach();
}

}  // namespace
