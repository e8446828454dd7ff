#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/process.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using th::test::readBytes;
using th::test::writeBytes;

namespace {

// The new launcher is a script that records where it was started.
const std::string kNewLauncher = "#!/bin/sh\npwd > relaunched.txt\n";

struct Install {
  th::test::TempDir scratch;
  fs::path root = scratch / "game";
  fs::path launcher = root / "tarn-hollow-launcher";
  fs::path work = root / ".tarnhollow-update";
  fs::path stage = work / "stage-1700000000123";
  fs::path staged = stage / "tarn-hollow-launcher";

  Install() {
    fs::create_directories(stage);
    fs::copy_file(TH_UPDATE_HELPER, root / "tarn-hollow-update-helper");
    writeBytes(staged, kNewLauncher);
  }
  std::string log() const { return readBytes(work / "helper.log"); }
};

// A staged file on another file system (renaming from it fails with EXDEV, also for root) and a
// staged folder instead of a file: either way the old launcher stays and nothing is relaunched.
TEST(UpdateHelper, FailedReplacementKeepsTheOldLauncherAndDoesNotRelaunch) {
  const fs::path foreign = "/dev/shm/th-helper-" + std::to_string(getpid());
  fs::create_directories(foreign);
  struct stat shm {
  }, tmp{};
  const bool otherDevice = stat(foreign.c_str(), &shm) == 0 &&
                           stat(fs::temp_directory_path().c_str(), &tmp) == 0 &&
                           shm.st_dev != tmp.st_dev;
  writeBytes(foreign / "tarn-hollow-launcher", kNewLauncher);
  for (const bool renameFails : {true, false}) {
    SCOPED_TRACE(renameFails ? "staged on another file system" : "staged folder");
    if (renameFails && !otherDevice) continue;
    Install install;
    writeBytes(install.launcher, "old launcher");
    th::test::ChildProcess gone({"/bin/true"});
    gone.wait(10s);
    const fs::path staged = renameFails ? foreign / "tarn-hollow-launcher" : install.stage;

    const auto helper =
        th::test::runProcess({(install.root / "tarn-hollow-update-helper").string(), "--wait-pid",
                              std::to_string(gone.pid()), "--replace", staged.string(), "--target",
                              install.launcher.string(), "--relaunch", install.launcher.string()});

    EXPECT_EQ(helper.exitCode, 1);
    EXPECT_EQ(readBytes(install.launcher), "old launcher");
    EXPECT_EQ(readBytes(renameFails ? staged : install.staged), kNewLauncher);
    EXPECT_FALSE(fs::exists(install.root / "relaunched.txt"));
    const std::string reason = renameFails ? "launcher_rename_failed:Invalid cross-device link"
                                           : "staged_launcher_not_a_file";
    EXPECT_NE(install.log().find("replacement failed: " + reason + "\n"), std::string::npos)
        << install.log();
  }
  fs::remove_all(foreign);
  if (!otherDevice) GTEST_SKIP() << "no second file system at /dev/shm for the failed rename";
}

TEST(UpdateHelper, BadCommandLinesAreRefusedWithUsageAndExitCode2) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> table = {
      {{}, "missing --wait-pid"},
      {{"--wait-pid", "7", "--replace", "", "--target", "t", "--relaunch", "r"},
       "missing value for --replace"},
      {{"--wait-pid", "7", "--replace", "s", "--target", "t", "--target", "u"},
       "repeated --target"},
      {{"--wait-pid", "7", "--replace", "s", "--target", "t", "--relaunch", "r", "extra"},
       "unknown argument 'extra'"},
      {{"--wait-pid", "0", "--replace", "s", "--target", "t", "--relaunch", "r"},
       "--wait-pid needs a positive process id, not '0'"},
  };
  for (const auto& [args, message] : table) {
    SCOPED_TRACE(message);
    th::test::TempDir cwd;
    std::vector<std::string> argv{TH_UPDATE_HELPER};
    argv.insert(argv.end(), args.begin(), args.end());
    th::test::ProcessOptions inEmptyFolder;
    inEmptyFolder.workDir = cwd.path();
    const auto helper = th::test::runProcess(argv, inEmptyFolder);
    EXPECT_EQ(helper.exitCode, 2);
    EXPECT_EQ(helper.err, "tarn-hollow-update-helper: " + message +
                              "\nusage: tarn-hollow-update-helper --wait-pid PID --replace STAGED "
                              "--target TARGET --relaunch PROGRAM\n");
    EXPECT_TRUE(fs::is_empty(cwd.path()));  // no log either
  }
}

}  // namespace
