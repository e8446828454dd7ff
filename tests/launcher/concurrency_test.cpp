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
  std::atomic<bool> done{false};
  std::thread worker([&] {
    const auto sink = progressSink(shared);
    for (int i = 0; i < 20000; ++i) {
      if (i % 2 == 0) {
        publishUpdating(shared, static_cast<size_t>(i), false);
      } else {
        publishApplyFailed(shared, "download_hash_mismatch:game.pak");
      }
      sink(static_cast<size_t>(i), static_cast<size_t>(i) + 1);
    }
    done = true;
  });
  int checked = 0;
  while (!done) {
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
    ++checked;
  }
  worker.join();
  EXPECT_GT(checked, 0);
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

}  // namespace
}  // namespace th::test
