// The update job run in-process and to its end against a real nginx, and the game launch.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "launcher/process_launch.h"
#include "launcher/update_job.h"
#include "tests/launcher/recording.h"
#include "tests/launcher/test_release.h"
#include "tests/support/folder_snapshot.h"
#include "tests/support/nginx_server.h"
#include "tests/support/release_builder.h"
#include "tests/support/temp_dir.h"

namespace th::test {
namespace {

using namespace std::chrono_literals;

class UpdateJob : public ::testing::Test {
 protected:
  // Publishes the release, starts nginx on it and points the install at it.
  void serve(const Release& release, const std::optional<std::string>& marker = std::nullopt) {
    publishRelease(serverRoot.path(), release);
    server = std::make_unique<NginxServer>(serverRoot.path());
    ASSERT_TRUE(server->ok()) << server->errorLog();
    prepareInstall(install.path(), server->url(), marker);
  }

  // As beginUpdateJob leaves the record, then the whole job on this thread.
  Snapshot run(bool repair = false) {
    shared.busy = true;
    runUpdateJob(shared, install.path(), "stable", repair, false);
    return snapshot(shared);
  }

  bool downloadedAnything() const {
    return server->accessLog().find("/stable/linux/files/") != std::string::npos;
  }

  TempDir serverRoot;
  TempDir install;
  std::unique_ptr<NginxServer> server;
  Shared shared;
};

void expectEnd(const Snapshot& s, JobState state, const std::string& status,
               const std::string& detail) {
  EXPECT_EQ(s.state, state);
  EXPECT_EQ(s.status, status);
  EXPECT_EQ(s.detail, detail);
  EXPECT_FALSE(s.busy);
}

// Everything in the install folder except the update work folder.
FolderSnapshot installedFiles(const std::filesystem::path& installDir) {
  FolderSnapshot files = snapshotFolder(installDir);
  std::erase_if(files,
                [](const auto& entry) { return entry.first.starts_with(".tarnhollow-update"); });
  return files;
}

TEST_F(UpdateJob, UpdatesAnOlderInstallAndLeavesTheBarFull) {
  Release r = release(
      "1.10.0", {releaseFile("data/world.pak", "world"), releaseFile("tarn-hollow", "game", true)});
  r.releaseNotes = "notes";
  serve(r, "1.2.0\n");
  const Snapshot s = run();
  expectEnd(s, JobState::Ready, "READY TO PLAY", "INSTALLED VERSION 1.10.0");
  EXPECT_EQ(s.latestVersion, "1.10.0");
  EXPECT_EQ(s.releaseNotes, "notes");
  EXPECT_EQ(s.progressTotal, 9u);
  EXPECT_EQ(s.progressDone, 9u);
  EXPECT_FALSE(s.updateAvailable || s.updateRequired || s.quitRequested);
  EXPECT_EQ(readBytes(install / "data" / "world.pak"), "world");
}

TEST_F(UpdateJob, NeverAppliesADowngrade) {
  Release r = release("1.9.9", {releaseFile("data/world.pak", "world")});
  r.mandatory = true;
  serve(r, "2.0.0\n");
  const Snapshot s = run();
  expectEnd(s, JobState::Ready, "READY TO PLAY",
            "INSTALLED 2.0.0 // SERVER 1.9.9 // DOWNGRADE BLOCKED");
  EXPECT_EQ(s.latestVersion, "1.9.9");
  EXPECT_FALSE(s.updateAvailable || s.updateRequired);
  EXPECT_EQ(s.progressTotal, 0u);
  EXPECT_FALSE(downloadedAnything());
  EXPECT_FALSE(std::filesystem::exists(install / "data" / "world.pak"));
}

TEST_F(UpdateJob, AMandatoryReleaseLocksACurrentInstall) {
  Release r = release("1.3.0", {releaseFile("data/world.pak", "world")});
  r.mandatory = true;
  serve(r, "1.3.0");
  writeBytes(install / "data" / "world.pak", "world");
  const Snapshot s = run();
  expectEnd(s, JobState::Ready, "READY TO PLAY", "VERSION 1.3.0 // stable");
  EXPECT_TRUE(s.updateRequired);
  EXPECT_FALSE(s.updateAvailable);
  EXPECT_EQ(s.progressTotal, 0u);
}

TEST_F(UpdateJob, AFailedApplyKeepsTheLockOfTheMinimumOnlineVersion) {
  const struct {
    std::string minimum;
    bool required;
  } cases[] = {{"0.17.0", true}, {"0.16.117", false}, {"", false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.minimum);
    TempDir freshServer;
    Release r = release("0.18.0", {releaseFile("data/world.pak", "world")});
    r.minimumOnlineVersion = c.minimum;
    publishRelease(freshServer.path(), r);
    // A hostile server: the file served is not the file signed for.
    writeBytes(channelFolder(freshServer.path()) / "files" / "data" / "world.pak", "WORLD");
    NginxServer hostile(freshServer.path());
    ASSERT_TRUE(hostile.ok());
    prepareInstall(install.path(), hostile.url());
    const FolderSnapshot before = installedFiles(install.path());
    const Snapshot s = run();
    expectEnd(s, JobState::Failed, "UPDATE FAILED - TRY AGAIN",
              "download_hash_mismatch:data/world.pak");
    EXPECT_EQ(s.updateRequired, c.required);
    EXPECT_TRUE(s.updateAvailable);
    EXPECT_EQ(snapshotDiff(before, installedFiles(install.path())), "");
  }
}

TEST_F(UpdateJob, AFailedInstallIsRolledBack) {
  serve(release("1.3.0",
                {releaseFile("data/world.pak", "world"), releaseFile("maps/tarn.map", "map")}),
        "1.2.0\n");
  writeBytes(install / "data" / "world.pak", "old world");
  writeBytes(install / "maps", "a file where a folder must go");
  const FolderSnapshot before = installedFiles(install.path());
  const Snapshot s = run(true);
  expectEnd(s, JobState::Failed, "UPDATE FAILED - TRY AGAIN",
            "update_destination_failed:maps/tarn.map");
  EXPECT_EQ(snapshotDiff(before, installedFiles(install.path())), "");
}

TEST_F(UpdateJob, AnUnchangedMarkerAfterApplyIsAFailureOfItsOwn) {
  serve(release("1.3.0", {releaseFile("data/world.pak", "world")}), "1.2.0\n");
  writeBytes(install / "data" / "world.pak", "world");
  const Snapshot s = run();
  expectEnd(s, JobState::Failed, "VERSION MARKER UPDATE FAILED", "EXPECTED 1.3.0 // FOUND 1.2.0");
  EXPECT_TRUE(s.updateAvailable);
}

TEST_F(UpdateJob, AFailedCheckKeepsWhatTheLastCheckFound) {
  serve(release("1.3.0", {releaseFile("data/world.pak", "world")}));
  const std::string manifest = readBytes(channelFolder(serverRoot.path()) / "manifest.json");
  const std::string goodSignature = readBytes(channelFolder(serverRoot.path()) / "manifest.sig");
  const struct {
    std::string name;
    std::optional<std::string> serverFile;
    std::string manifest, signature;
    std::string detail;  // empty: the transport's message, any
  } cases[] = {
      {"no server file", std::nullopt, manifest, goodSignature, "update_server_not_configured"},
      {"blank server file", " \n", manifest, goodSignature, "update_server_not_configured"},
      {"bad signature", server->url(), manifest + " ", goodSignature,
       "manifest_signature_verify_failed"},
      {"server down", "http://127.0.0.1:" + std::to_string(freeLocalPort()), manifest,
       goodSignature, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove(install / "data" / "update_server.txt");
    if (c.serverFile) writeBytes(install / "data" / "update_server.txt", *c.serverFile);
    publishRawManifest(serverRoot.path(), c.manifest, c.signature);
    shared.latestVersion = "1.1.0";
    shared.releaseNotes = "earlier notes";
    shared.updateAvailable = true;
    shared.updateRequired = true;
    const Snapshot s = run();
    EXPECT_EQ(s.state, JobState::ServiceUnavailable);
    EXPECT_EQ(s.status, "UPDATE SERVICE UNAVAILABLE");
    const std::string suffix = " // ONLINE LOGIN STILL REQUIRED";
    if (c.detail.empty()) {
      EXPECT_TRUE(s.detail.ends_with(suffix) && s.detail.size() > suffix.size()) << s.detail;
    } else {
      EXPECT_EQ(s.detail, c.detail + suffix);
    }
    EXPECT_EQ(s.latestVersion, "1.1.0");
    EXPECT_EQ(s.releaseNotes, "earlier notes");
    EXPECT_TRUE(s.updateAvailable && s.updateRequired);
    EXPECT_FALSE(s.busy);
  }
}

TEST_F(UpdateJob, ANewLauncherIsHandedToTheHelperAndTheJobStaysBusy) {
  serve(release("1.3.0", {releaseFile("tarn-hollow-launcher", "new launcher", true)}));
  Recording recording{install / "started.txt"};
  Recording::installAt(install / "tarn-hollow-update-helper");
  setenv("TH_RECORD_FILE", recording.file.c_str(), 1);
  const Snapshot s = run();
  EXPECT_EQ(s.state, JobState::Restarting);
  EXPECT_EQ(s.status, "LAUNCHER UPDATED");
  EXPECT_EQ(s.detail, "RESTARTING...");
  EXPECT_TRUE(s.quitRequested);
  EXPECT_TRUE(s.busy);
  ASSERT_TRUE(waitUntil([&] { return recording.exists(); }, 20s));
  const auto lines = recording.lines();
  ASSERT_EQ(lines.size(), 11u);
  EXPECT_EQ(lines[4], "arg=" + lines[0].substr(4));  // the helper's own process ID
  // The helper is this test's child; collect it so later tests see only their own.
  waitpid(std::stoi(lines[0].substr(4)), nullptr, 0);
  beginUpdateJob(shared, install.path(), "stable", false, false);
  EXPECT_EQ(snapshot(shared).status, "LAUNCHER UPDATED");
}

// The only children of this test are the ones launchProcess starts.
int exitCodeOfOnlyChild() {
  int status = 0;
  if (waitpid(-1, &status, 0) < 0 || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

TEST(LaunchProcess, StartsTheProgramInItsFolderWithOnlyItsName) {
  TempDir dir;
  Recording recording{dir / "started.txt"};
  Recording::installAt(dir / "game" / "tarn-hollow");
  setenv("TH_RECORD_FILE", recording.file.c_str(), 1);
  ASSERT_TRUE(launchProcess(dir / "game" / "tarn-hollow"));
  EXPECT_EQ(exitCodeOfOnlyChild(), 0);
  const auto lines = recording.lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[1], "cwd=" + std::filesystem::canonical(dir / "game").string());
  EXPECT_EQ(lines[2], "arg=tarn-hollow");
}

TEST(LaunchProcess, ReportsFailuresOnlyThroughTheChildsExitCode) {
  TempDir dir;
  writeBytes(dir / "not-executable", "data");
  const struct {
    std::filesystem::path executable;
    int exitCode;
  } cases[] = {{dir / "not-executable", 127}, {dir / "missing", 127}, {"tarn-hollow", 126}};
  for (const auto& c : cases) {
    EXPECT_TRUE(launchProcess(c.executable)) << c.executable;
    EXPECT_EQ(exitCodeOfOnlyChild(), c.exitCode) << c.executable;
  }
}

}  // namespace
}  // namespace th::test
