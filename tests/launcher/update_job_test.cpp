// The update job run in-process and to its end against a real nginx.
#include <gtest/gtest.h>

#include "launcher/update_job.h"
#include "tests/launcher/launcher_install.h"
#include "tests/support/files.h"
#include "tests/support/nginx_server.h"
#include "tests/support/release_builder.h"

namespace th::test {
namespace {

struct Expected {
  JobState state;
  std::string status, detail;
  bool updateAvailable, updateRequired;
};

class UpdateJob : public ::testing::Test {
 protected:
  // Serves the release from a fresh nginx, runs the whole job on this thread as beginUpdateJob
  // would, and compares the record it leaves.
  Snapshot run(const Release& release, const std::string& marker, const Expected& expected,
               const std::function<void(const std::filesystem::path& served)>& tamper = {}) {
    TempDir www;
    publishRelease(www.path(), release);
    if (tamper) tamper(channelFolder(www.path()));
    NginxServer server(www.path());
    EXPECT_TRUE(server.ok()) << server.errorLog();
    prepareInstall(install.path(), server.url(), marker);
    const FolderSnapshot before = installSnapshot(install.path());
    Shared shared;
    shared.busy = true;
    runUpdateJob(shared, install.path(), "stable", false, false);
    const Snapshot s = snapshot(shared);
    EXPECT_EQ(s.state, expected.state);
    EXPECT_EQ(s.status, expected.status);
    EXPECT_EQ(s.detail, expected.detail);
    EXPECT_EQ(s.updateAvailable, expected.updateAvailable);
    EXPECT_EQ(s.updateRequired, expected.updateRequired);
    downloads = server.accessLog().find("/files/") != std::string::npos;
    changes = snapshotDiff(before, installSnapshot(install.path()));
    return s;
  }

  TempDir install;
  bool downloads = false;
  std::string changes;  // what the job changed in the install folder
};

Release world(const std::string& version) {
  Release release;
  release.version = version;
  release.files = {{"data/world.pak", "world"}};
  return release;
}

TEST_F(UpdateJob, NeverAppliesADowngradeNotEvenAMandatoryOne) {
  Release release = world("1.9.9");
  release.mandatory = true;
  run(release, "2.0.0\n",
      {JobState::Ready, "READY TO PLAY", "INSTALLED 2.0.0 // SERVER 1.9.9 // DOWNGRADE BLOCKED",
       false, false});
  EXPECT_FALSE(downloads);
  EXPECT_EQ(changes, "");
}

TEST_F(UpdateJob, AMandatoryReleaseLocksACurrentInstall) {
  Release release = world("1.3.0");
  release.mandatory = true;
  writeBytes(install / "data" / "world.pak", "world");
  run(release, "1.3.0", {JobState::Ready, "READY TO PLAY", "VERSION 1.3.0 // stable", false, true});
}

TEST_F(UpdateJob, AFailedApplyLocksBelowTheMinimumOnlineVersionAndChangesNothing) {
  for (const auto& [minimum, required] : std::vector<std::pair<std::string, bool>>{
           {"0.17.0", true}, {"0.16.117", false}, {"", false}}) {
    SCOPED_TRACE(minimum);
    Release release = world("0.18.0");
    release.minimumOnlineVersion = minimum;
    // No marker: the install counts as 0.16.117. The served file is not the one signed for.
    run(release, "",
        {JobState::Failed, "UPDATE FAILED - TRY AGAIN", "download_hash_mismatch:data/world.pak",
         true, required},
        [](const auto& served) { writeBytes(served / "files/data/world.pak", "WORLD"); });
    EXPECT_EQ(changes, "");
  }
}

TEST_F(UpdateJob, AnUnchangedMarkerAfterApplyIsAFailureOfItsOwn) {
  writeBytes(install / "data" / "world.pak", "world");
  run(world("1.3.0"), "1.2.0\n",
      {JobState::Failed, "VERSION MARKER UPDATE FAILED", "EXPECTED 1.3.0 // FOUND 1.2.0", true,
       false});
}

}  // namespace
}  // namespace th::test
