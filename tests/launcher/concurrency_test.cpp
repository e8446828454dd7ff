// Run under ThreadSanitizer by scripts/test: the worker's writes and the UI's snapshots of the
// one shared record.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "launcher/shared_state.h"
#include "launcher/update_job.h"
#include "tests/support/temp_dir.h"

namespace th::test {
namespace {

TEST(LauncherConcurrency, ASnapshotNeverPairsANewStateWithAnOldStatus) {
  Shared shared;
  std::atomic<bool> readerDone{false};
  // Keeps switching phases (and progress) for as long as the reader looks.
  std::thread worker([&] {
    const auto sink = progressSink(shared);
    for (size_t i = 0; !readerDone; ++i) {
      if (i % 2 == 0) {
        publishUpdating(shared, i, false);
      } else {
        publishApplyFailed(shared, "download_hash_mismatch:game.pak");
      }
      sink(i, i + 1);
    }
  });
  for (int i = 0; i < 20000; ++i) {
    const Snapshot snap = snapshot(shared);
    if (snap.state == JobState::Updating) {
      EXPECT_EQ(snap.status, "DOWNLOADING UPDATE...");
      EXPECT_TRUE(snap.detail.ends_with(" FILES REQUIRE UPDATE")) << snap.detail;
    } else if (snap.state == JobState::Failed) {
      EXPECT_EQ(snap.status, "UPDATE FAILED - TRY AGAIN");
      EXPECT_EQ(snap.detail, "download_hash_mismatch:game.pak");
    }
    if (snap.progressTotal != 0) {
      EXPECT_EQ(snap.progressTotal, snap.progressDone + 1);
    }
  }
  readerDone = true;
  worker.join();
}

TEST(LauncherConcurrency, StartingAJobWhileOneRunsChangesNothing) {
  TempDir install;
  Shared shared;
  {
    std::lock_guard lock(shared.mutex);
    shared.busy = true;
    shared.state = JobState::Updating;
    shared.status = "DOWNLOADING UPDATE...";
    shared.detail = "3 FILES REQUIRE UPDATE";
    shared.progressDone = 5;
    shared.progressTotal = 9;
  }
  std::thread clicks([&] {
    for (int i = 0; i < 200; ++i) beginUpdateJob(shared, install.path(), "stable", i % 2, false);
  });
  for (int i = 0; i < 200; ++i) beginUpdateJob(shared, install.path(), "stable", true, true);
  clicks.join();
  const Snapshot snap = snapshot(shared);
  EXPECT_TRUE(snap.busy);
  EXPECT_EQ(snap.state, JobState::Updating);
  EXPECT_EQ(snap.status, "DOWNLOADING UPDATE...");
  EXPECT_EQ(snap.detail, "3 FILES REQUIRE UPDATE");
  EXPECT_EQ(snap.progressDone, 5u);
  EXPECT_EQ(snap.progressTotal, 9u);
}

TEST(LauncherConcurrency, TheUiSnapshotsWhileAWorkerRunsAJob) {
  TempDir install;  // no server configured: the job ends after its check
  // Outlives the detached worker, as the launcher's own record does.
  static Shared shared;
  beginUpdateJob(shared, install.path(), "stable", true, false);
  Snapshot snap = snapshot(shared);
  while (snap.busy) {
    EXPECT_EQ(snap.state, JobState::Checking);
    EXPECT_EQ(snap.status, "CHECKING GAME FILES...");
    snap = snapshot(shared);
  }
  EXPECT_EQ(snap.state, JobState::ServiceUnavailable);
  EXPECT_EQ(snap.detail, "update_server_not_configured // ONLINE LOGIN STILL REQUIRED");
}

}  // namespace
}  // namespace th::test
