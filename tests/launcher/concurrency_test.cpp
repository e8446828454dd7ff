// Run under ThreadSanitizer by scripts/test: the worker's writes and the UI's snapshots of the
// one shared record.
#include <gtest/gtest.h>

#include <thread>

#include "launcher/update_job.h"
#include "tests/support/files.h"
#include "tests/support/process.h"

namespace th::test {
namespace {

// A job started while one runs changes nothing; once the first ends, the next one runs.
TEST(LauncherConcurrency, OnlyOneJobRunsAtATime) {
  TempDir install;       // no server configured: a job ends right after its check
  static Shared shared;  // outlives the detached workers, as the launcher's own record does
  publishUpdating(shared, 3, false);
  progressSink(shared)(5, 9);
  shared.busy = true;
  std::thread clicks([&] {
    for (int i = 0; i < 200; ++i) beginUpdateJob(shared, install.path(), "stable", i % 2, false);
  });
  for (int i = 0; i < 200; ++i) beginUpdateJob(shared, install.path(), "stable", true, true);
  clicks.join();
  Snapshot snap = snapshot(shared);
  EXPECT_TRUE(snap.busy);
  EXPECT_EQ(snap.state, JobState::Updating);
  EXPECT_EQ(snap.status + " / " + snap.detail, "DOWNLOADING UPDATE... / 3 FILES REQUIRE UPDATE");
  EXPECT_EQ(snap.progressDone * 100 + snap.progressTotal, 509u);

  shared.mutex.lock();
  shared.busy = false;
  shared.mutex.unlock();
  beginUpdateJob(shared, install.path(), "stable", true, false);
  int wrongWhileBusy = 0;  // a running repair shows its own wording and a reset bar
  EXPECT_TRUE(waitUntil(
      [&] {
        snap = snapshot(shared);
        wrongWhileBusy += snap.busy && (snap.status != "CHECKING GAME FILES..." ||
                                        snap.progressDone + snap.progressTotal != 0);
        return !snap.busy;
      },
      std::chrono::seconds(30)));
  EXPECT_EQ(wrongWhileBusy, 0);
  EXPECT_EQ(snap.progressDone + snap.progressTotal, 0u);
  EXPECT_EQ(snap.state, JobState::ServiceUnavailable);
  EXPECT_EQ(snap.detail, "update_server_not_configured // ONLINE LOGIN STILL REQUIRED");
}

}  // namespace
}  // namespace th::test
