// The update job against a real nginx, and the worker's writes against the UI's snapshots of the
// shared record (also under ThreadSanitizer).
#include <gtest/gtest.h>

#include <thread>

#include "launcher/update_job.h"
#include "tests/support/update_server.h"

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

  std::lock_guard(shared.mutex), shared.busy = false;  // the lock lasts as long as the statement
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

// Each row serves one release of "data/world.pak", runs the job here as beginUpdateJob would, and
// compares the record and the install it leaves.
TEST(UpdateJob, EndsInThePhaseTheReleaseAndTheInstallCallFor) {
  const struct {
    std::string name, version, minimum, marker;
    bool mandatory, current, tampered;  // current: the install already holds the release's file
    JobState state;
    std::string status, detail;
    bool available, required, changes;
  } table[] = {
      {"a downgrade is never applied, not even a mandatory one", "1.9.9", "", "2.0.0\n", true,
       false, false, JobState::Ready, "READY TO PLAY",
       "INSTALLED 2.0.0 // SERVER 1.9.9 // DOWNGRADE BLOCKED", false, false, false},
      // No marker: the install counts as 0.16.117. The served file is not the one signed for.
      {"failed apply below the minimum online version", "0.18.0", "0.17.0", "", false, false, true,
       JobState::Failed, "UPDATE FAILED - TRY AGAIN", "download_hash_mismatch:data/world.pak", true,
       true, false},
      {"failed apply at the minimum online version", "0.18.0", "0.16.117", "", false, false, true,
       JobState::Failed, "UPDATE FAILED - TRY AGAIN", "download_hash_mismatch:data/world.pak", true,
       false, false},
      {"files current, marker stale", "1.3.0", "", "1.2.0\n", false, true, false, JobState::Failed,
       "VERSION MARKER UPDATE FAILED", "EXPECTED 1.3.0 // FOUND 1.2.0", true, false, false},
      {"an update", "1.3.0", "", "1.2.0\n", false, false, false, JobState::Ready, "READY TO PLAY",
       "INSTALLED VERSION 1.3.0", false, false, true},
      {"a file of the installed version missing", "1.3.0", "", "1.3.0\n", false, false, false,
       JobState::Ready, "READY TO PLAY", "INSTALLED VERSION 1.3.0", false, false, true},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.name);
    TempDir www, install;
    publishRelease(www.path(),
                   Release{row.version, {{"data/world.pak", "world"}}, row.mandatory, row.minimum});
    if (row.tampered) writeBytes(channelFolder(www.path()) / "files/data/world.pak", "WORLD");
    NginxServer server(www.path());
    ASSERT_TRUE(server.ok()) << server.errorLog();
    prepareInstall(install.path(), server.url(), row.marker);
    if (row.current) writeBytes(install / "data" / "world.pak", "world");
    const FolderSnapshot before = installSnapshot(install.path());
    Shared shared;
    shared.busy = true;
    runUpdateJob(shared, install.path(), "stable", false, false);
    const Snapshot s = snapshot(shared);
    EXPECT_EQ(s.state, row.state);
    EXPECT_EQ(s.status + " / " + s.detail, row.status + " / " + row.detail);
    EXPECT_EQ(s.updateAvailable, row.available);
    EXPECT_EQ(s.updateRequired, row.required);
    EXPECT_FALSE(s.busy);
    EXPECT_EQ(snapshotDiff(before, installSnapshot(install.path())).empty(), !row.changes);
  }
}

}  // namespace
}  // namespace th::test
