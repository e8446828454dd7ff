#include <curl/curl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <functional>

#include "tests/update/local_http_server.h"
#include "tests/update/update_fixture.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;
using update::UpdatePlan;

const std::string kLauncher = "tarn-hollow-launcher";

unsigned modeOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

std::vector<fs::path> workEntries(const fs::path& install, const std::string& prefix) {
  std::vector<fs::path> found;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(install / ".tarnhollow-update", ignored)) {
    if (entry.path().filename().string().starts_with(prefix)) found.push_back(entry.path());
  }
  return found;
}

// What a failed download may leave: empty backup folders, and no staging folder.
void expectOnlyEmptyBackups(const fs::path& install) {
  for (const auto& [path, entry] : snapshotFolder(install / ".tarnhollow-update")) {
    EXPECT_TRUE(path.starts_with("backup-") && path.find('/') == std::string::npos) << path;
    EXPECT_EQ(entry.type, "folder") << path;
  }
}

Release fiveFiles() {
  Release release;
  release.version = "2.0.0";
  release.files = {{"tarn-hollow", "game 2.0", true},
                   {"data/maps/lake.map", std::string(70000, 'L')},
                   {"data/maps/forest.map", "forest 2.0"},
                   {"data/sounds/bell.ogg", "bell 2.0"},
                   {"tarn-hollow-update-helper", "helper 2.0", true}};
  return release;
}

using ApplyTest = UpdateServerTest;

TEST_F(ApplyTest, FreshInstallOfAReleaseWithSubfolders) {
  const Release release = fiveFiles();
  publishRelease(www.path(), release);
  const UpdatePlan plan = checked();
  ASSERT_EQ(plan.files.size(), 5u);
  ProgressLog progress;
  std::string error;
  ASSERT_TRUE(updater.apply(plan, progress.sink(), error, nullptr)) << error;

  for (const ReleaseFile& file : release.files) {
    EXPECT_EQ(readBytes(install / file.path), file.bytes) << file.path;
    if (file.executable) {
      EXPECT_EQ(modeOf(install / file.path), 0755u) << file.path;
    } else {
      EXPECT_EQ(modeOf(install / file.path) & 0111, 0u) << file.path;
    }
  }
  EXPECT_EQ(readBytes(install / "data" / "game_version"), "2.0.0\n");
  EXPECT_TRUE(workEntries(install.path(), "stage-").empty());
  const std::vector<fs::path> backups = workEntries(install.path(), "backup-");
  ASSERT_EQ(backups.size(), 1u);
  EXPECT_TRUE(fs::is_empty(backups[0]));
  EXPECT_EQ(readBytes(install / "save" / "profile_v07.sav"), "the player's progress");
  EXPECT_TRUE(checked().files.empty());
}

TEST_F(ApplyTest, PartialUpdateFetchesOnlyWhatChangedAndBacksUpWhatItReplaces) {
  Release release = fiveFiles();
  for (const ReleaseFile& file : release.files) writeBytes(install / file.path, file.bytes);
  writeBytes(install / "data" / "maps" / "forest.map", "forest 1.0");
  fs::remove(install / "data" / "sounds" / "bell.ogg");
  publishRelease(www.path(), release);
  std::string error;
  ASSERT_TRUE(updater.apply(checked(), {}, error, nullptr)) << error;

  EXPECT_EQ(readBytes(install / "data" / "maps" / "forest.map"), "forest 2.0");
  EXPECT_EQ(readBytes(install / "data" / "sounds" / "bell.ogg"), "bell 2.0");
  const std::vector<fs::path> backups = workEntries(install.path(), "backup-");
  ASSERT_EQ(backups.size(), 1u);
  EXPECT_EQ(snapshotFolder(backups[0]).size(), 3u);  // data, data/maps, data/maps/forest.map
  EXPECT_EQ(readBytes(backups[0] / "data" / "maps" / "forest.map"), "forest 1.0");
  const std::string log = nginx.accessLog(4);  // manifest, signature and the two files
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 4) << log;
  EXPECT_NE(log.find("/files/data/maps/forest.map 200"), std::string::npos) << log;
  EXPECT_NE(log.find("/files/data/sounds/bell.ogg 200"), std::string::npos) << log;
  EXPECT_EQ(log.find("/files/data/maps/lake.map"), std::string::npos) << log;
}

// A server that fails the test if the engine asks it for anything.
class UntouchableServerTest : public ::testing::Test {
 protected:
  std::atomic<int> hits{0};
  LocalHttpServer server{[this](httplib::Server& s) {
    s.Get(R"(/.*)", [this](const httplib::Request&, httplib::Response& res) {
      ++hits;
      res.set_content("x", "text/plain");
    });
  }};
  TempDir install;
};

TEST_F(UntouchableServerTest, DowngradeIsBlockedBeforeAnyRequest) {
  struct Case {
    std::string installed, offered;
  };
  for (const Case& c :
       std::vector<Case>{{"1.2.0", "1.1.9"}, {"1.2.0\n", "1.1.9"}, {"1.10", "1.9.99"}}) {
    prepareInstall(install.path(), server.url(), c.installed);
    update::Updater updater(install.path());
    updater.server = server.url();
    UpdatePlan plan;
    plan.manifest.version = c.offered;
    plan.manifest.channel = "stable";
    plan.manifest.platform = "linux";
    plan.files.push_back({"x.txt", sha256Hex("x"), 1, false, install / "x.txt", true});
    const FolderSnapshot before = snapshotFolder(install.path());
    std::string error;
    EXPECT_FALSE(updater.apply(plan, {}, error, nullptr));
    EXPECT_EQ(error, "update_downgrade_blocked:" + c.offered);
    EXPECT_EQ(snapshotDiff(before, snapshotFolder(install.path())), "");
  }
  EXPECT_EQ(hits, 0);
}

TEST_F(UntouchableServerTest, EmptyPlanCreatesNothing) {
  prepareInstall(install.path(), server.url(), "0.9\n");
  update::Updater updater(install.path());
  updater.server = server.url();
  UpdatePlan plan;
  plan.manifest.version = "2.0.0";
  const FolderSnapshot before = snapshotFolder(install.path());
  std::string error;
  EXPECT_TRUE(updater.apply(plan, {}, error, nullptr)) << error;
  EXPECT_EQ(snapshotDiff(before, snapshotFolder(install.path())), "");
  EXPECT_EQ(hits, 0);
}

TEST_F(ApplyTest, EqualVersionIsNotADowngrade) {
  writeBytes(install / "data" / "game_version", "2.0.0\n");
  publishRelease(www.path(), fiveFiles());
  std::string error;
  EXPECT_TRUE(updater.apply(checked(), {}, error, nullptr)) << error;
  EXPECT_EQ(readBytes(install / "data" / "game_version"), "2.0.0\n");
}

TEST_F(ApplyTest, LauncherIsLeftStagedForTheHelper) {
  Release release;
  release.version = "2.0.0";
  release.files = {{"bin/" + kLauncher, "launcher 2.0", true}};
  writeBytes(install / "bin" / kLauncher, "launcher 1.0");
  publishRelease(www.path(), release);

  fs::path staged;
  std::string error;
  const UpdatePlan plan = checked();
  EXPECT_TRUE(plan.launcherUpdate);
  ASSERT_TRUE(updater.apply(plan, {}, error, &staged)) << error;
  const std::vector<fs::path> stages = workEntries(install.path(), "stage-");
  ASSERT_EQ(stages.size(), 1u);
  EXPECT_EQ(staged, stages[0] / "bin" / kLauncher);
  EXPECT_EQ(readBytes(staged), "launcher 2.0");
  EXPECT_EQ(readBytes(install / "bin" / kLauncher), "launcher 1.0");
  EXPECT_EQ(readBytes(install / "data" / "game_version"), "2.0.0\n");

  // Without anyone to hand it to, the new launcher is discarded with the staging folder.
  fs::remove_all(install / ".tarnhollow-update");
  writeBytes(install / "data" / "game_version", "1.0.0\n");
  ASSERT_TRUE(updater.apply(plan, {}, error, nullptr)) << error;
  EXPECT_TRUE(workEntries(install.path(), "stage-").empty());
  EXPECT_EQ(readBytes(install / "bin" / kLauncher), "launcher 1.0");
  EXPECT_EQ(readBytes(install / "data" / "game_version"), "2.0.0\n");
}

TEST_F(ApplyTest, ProgressCountsAnnouncedBytesAndIsRebasedAfterEachFile) {
  Release release;
  release.files = {{"a.bin", std::string(200000, 'a'), false, 1000},  // under-announced
                   {"b.bin", std::string(50000, 'b')},
                   {"c.bin", "", false, 0}};
  publishRelease(www.path(), release);
  const UpdatePlan plan = checked();
  ASSERT_EQ(plan.totalBytes, 51000u);
  ProgressLog progress;
  std::string error;
  ASSERT_TRUE(updater.apply(plan, progress.sink(), error, nullptr)) << error;
  ASSERT_FALSE(progress.calls.empty());
  size_t highest = 0;
  for (const auto& [done, total] : progress.calls) {
    EXPECT_EQ(total, 51000u);
    highest = std::max(highest, done);
  }
  EXPECT_EQ(highest, 200000u + 50000u);  // the running figure is not clamped while downloading
  EXPECT_EQ(progress.calls.back(), std::make_pair(size_t{51000}, size_t{51000}));
}

struct DownloadFault {
  std::string name;
  std::function<void(const fs::path& servedThird)> inject;
  std::string error;
};

TEST_F(ApplyTest, DownloadFailureOnTheThirdOfFiveLeavesTheInstallUntouched) {
  const std::string third = fiveFiles().files[2].path;
  const std::vector<DownloadFault> faults = {
      {"other bytes", [](const fs::path& p) { writeBytes(p, "forest 2.1"); },
       "download_hash_mismatch:" + third},
      {"more bytes than announced", [](const fs::path& p) { writeBytes(p, "forest 2.0 and more"); },
       "download_hash_mismatch:" + third},
      {"not on the server", [](const fs::path& p) { fs::remove(p); },
       curl_easy_strerror(CURLE_HTTP_RETURNED_ERROR)},
  };
  Release old = fiveFiles();
  for (ReleaseFile& file : old.files) {
    file.bytes += " (old)";
    writeBytes(install / file.path, file.bytes);
  }
  writeBytes(install / "data" / "game_version", "1.0.0\n");
  for (const DownloadFault& fault : faults) {
    publishRelease(www.path(), fiveFiles());
    fault.inject(channelFolder(www.path()) / "files" / third);
    const UpdatePlan plan = checked();
    const FolderSnapshot before = installSnapshot();
    std::string error;
    EXPECT_FALSE(updater.apply(plan, {}, error, nullptr)) << fault.name;
    EXPECT_EQ(error, fault.error) << fault.name;
    EXPECT_EQ(snapshotDiff(before, installSnapshot()), "") << fault.name;
    expectOnlyEmptyBackups(install.path());
  }
}

TEST_F(ApplyTest, BodyCutShortLeavesTheInstallUntouched) {
  publishRelease(www.path(), fiveFiles());
  const std::string second = fiveFiles().files[1].path;
  // Serves the release from disk but hangs up halfway through the second file.
  LocalHttpServer cutting([&](httplib::Server& s) {
    s.Get(R"(/(.*))", [&](const httplib::Request& req, httplib::Response& res) {
      const std::string bytes = readBytes(www / req.matches[1].str());
      if (req.matches[1].str().ends_with(second)) {
        res.set_content_provider(bytes.size(), "application/octet-stream",
                                 [bytes](size_t offset, size_t, httplib::DataSink& sink) {
                                   if (offset > 0) return false;
                                   sink.write(bytes.data(), bytes.size() / 2);
                                   return true;
                                 });
      } else {
        res.set_content(bytes, "application/octet-stream");
      }
    });
  });
  updater.server = cutting.url();
  const UpdatePlan plan = checked();
  const FolderSnapshot before = snapshotFolder(install.path());
  std::string error;
  EXPECT_FALSE(updater.apply(plan, {}, error, nullptr));
  EXPECT_EQ(error, curl_easy_strerror(CURLE_PARTIAL_FILE));
  EXPECT_EQ(snapshotDiff(before, installSnapshot()), "");
  expectOnlyEmptyBackups(install.path());
}

struct InstallFault {
  std::string name;
  std::string fourthPath;
  std::function<void(const fs::path& install)> inject;
  std::string error;
};

// Three files are installed (two replaced, one new) before the fourth fails; all three are undone.
TEST_F(ApplyTest, InstallFailureOnTheFourthOfFiveRollsBackTheThreeBefore) {
  const std::vector<InstallFault> faults = {
      {"a regular file where its folder must go", "data/extra/d.bin",
       [](const fs::path& root) { writeBytes(root / "data" / "extra", "in the way"); },
       "update_destination_failed:data/extra/d.bin"},
      // The same path twice: its staged copy is already gone when the second one is installed.
      {"a path listed twice", "data/c.bin", [](const fs::path&) {},
       "update_install_failed:data/c.bin"},
  };
  for (const InstallFault& fault : faults) {
    Release release;
    release.version = "3.0.0";
    release.files = {{"tarn-hollow", "game 3.0", true},
                     {"data/a.bin", "a 3.0"},
                     {"data/c.bin", "c 3.0 (new)"},
                     {fault.fourthPath, fault.fourthPath == "data/c.bin" ? "c 3.0 (new)" : "d"},
                     {"data/e.bin", "e 3.0"}};
    TempDir root;
    prepareInstall(root.path(), nginx.url(), "2.0.0\n");
    writeBytes(root / "tarn-hollow", "game 2.0");
    writeBytes(root / "data" / "a.bin", "a 2.0");
    writeBytes(root / "save" / "slot1.sav", "saved game");
    fault.inject(root.path());
    publishRelease(www.path(), release);
    update::Updater local(root.path());
    local.server = nginx.url();
    UpdatePlan plan;
    std::string error;
    ASSERT_TRUE(local.check("stable", plan, error)) << error;
    ASSERT_EQ(plan.files.size(), 5u);
    FolderSnapshot before = snapshotFolder(root.path());

    EXPECT_FALSE(local.apply(plan, {}, error, nullptr)) << fault.name;
    EXPECT_EQ(error, fault.error) << fault.name;
    FolderSnapshot after = snapshotFolder(root.path());
    std::erase_if(after, [](const auto& e) { return e.first.starts_with(".tarnhollow-update"); });
    EXPECT_EQ(snapshotDiff(before, after), "") << fault.name;
    EXPECT_EQ(modeOf(root / "tarn-hollow") & 0111, 0u) << "restored with its old mode";
  }
}

}  // namespace
}  // namespace th::test
