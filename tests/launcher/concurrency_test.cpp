// Run under ThreadSanitizer by scripts/test: the worker's writes and the UI's snapshots of the
// one shared record.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "launcher/update_job.h"
#include "tests/support/temp_dir.h"

namespace th::test {
namespace {

TEST(LauncherConcurrency, ASnapshotNeverPairsANewStateWithAnOldStatus) {
  Shared shared;
  std::atomic<bool> readerDone{false};
  std::thread worker([&] {  // switches phases and progress for as long as the reader looks
    for (size_t i = 0; !readerDone; ++i) {
      if (i % 2 == 0)
        publishUpdating(shared, i, false);
      else
        publishApplyFailed(shared, "download_hash_mismatch:game.pak");
      progressSink(shared)(i, i + 1);
    }
  });
  for (int i = 0; i < 20000; ++i) {
    const Snapshot snap = snapshot(shared);
    if (snap.state == JobState::Updating) {
      EXPECT_EQ(snap.status, "DOWNLOADING UPDATE...");
    }
    if (snap.state == JobState::Failed) {
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
  publishUpdating(shared, 3, false);
  shared.busy = true;
  const Snapshot before = snapshot(shared);
  std::thread clicks([&] {
    for (int i = 0; i < 200; ++i) beginUpdateJob(shared, install.path(), "stable", i % 2, false);
  });
  for (int i = 0; i < 200; ++i) beginUpdateJob(shared, install.path(), "stable", true, true);
  clicks.join();
  const Snapshot after = snapshot(shared);
  EXPECT_TRUE(after.busy);
  EXPECT_EQ(after.state, before.state);
  EXPECT_EQ(after.detail, "3 FILES REQUIRE UPDATE");
}

TEST(LauncherConcurrency, TheUiSnapshotsWhileAWorkerRunsAJob) {
  TempDir install;       // no server configured: the job ends after its check
  static Shared shared;  // outlives the detached worker, as the launcher's own record does
  beginUpdateJob(shared, install.path(), "stable", true, false);
  Snapshot snap = snapshot(shared);
  for (; snap.busy; snap = snapshot(shared)) EXPECT_EQ(snap.status, "CHECKING GAME FILES...");
  EXPECT_EQ(snap.detail, "update_server_not_configured // ONLINE LOGIN STILL REQUIRED");
}

}  // namespace
}  // namespace th::test
