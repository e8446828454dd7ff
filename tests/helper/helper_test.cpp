#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using th::test::readBytes;
using th::test::writeBytes;

namespace {

const std::string kUsage =
    "usage: tarn-hollow-update-helper --wait-pid PID --replace STAGED --target TARGET "
    "--relaunch PROGRAM\n";

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

// A process ID that no longer names a running process.
pid_t exitedPid() {
  th::test::ChildProcess child({"/bin/true"});
  child.wait(10s);
  return child.pid();
}

std::vector<std::string> helperCommand(const Install& install, const fs::path& staged) {
  return {(install.root / "tarn-hollow-update-helper").string(),
          "--wait-pid",
          std::to_string(exitedPid()),
          "--replace",
          staged.string(),
          "--target",
          install.launcher.string(),
          "--relaunch",
          install.launcher.string()};
}

// The log's lines without their time stamps.
std::vector<std::string> logSteps(const std::string& log) {
  std::vector<std::string> steps;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    steps.push_back(line.substr(std::min(line.size(), line.find(' ') + 1)));
  }
  return steps;
}

unsigned modeOf(const fs::path& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

TEST(UpdateHelper, WaitsForTheLauncherThenReplacesRelaunchesAndRemovesTheStagingFolder) {
  Install install;
  fs::copy_file(TH_FAKE_LAUNCHER, install.launcher);
  const std::string oldLauncher = readBytes(install.launcher);

  th::test::ChildProcess launcher({install.launcher.string(), install.staged.string()});
  ASSERT_EQ(launcher.wait(60s), 0) << launcher.err();

  ASSERT_TRUE(th::test::waitUntil(
      [&] { return install.log().find("relaunched ") != std::string::npos; }, 60s))
      << install.log();
  EXPECT_EQ(readBytes(install.launcher), kNewLauncher);
  EXPECT_EQ(modeOf(install.launcher), 0755u);
  EXPECT_FALSE(fs::exists(install.stage));
  EXPECT_EQ(readBytes(install.work / "backup-1700000000123" / "tarn-hollow-launcher"), oldLauncher);
  ASSERT_TRUE(
      th::test::waitUntil([&] { return fs::exists(install.root / "relaunched.txt"); }, 60s));
  const std::string root = fs::canonical(install.root).string();
  EXPECT_EQ(readBytes(install.root / "relaunched.txt"), root + "\n");
  const std::string parent = "launcher (parent " + std::to_string(launcher.pid()) + ")";
  const std::string target = root + "/tarn-hollow-launcher";
  EXPECT_EQ(logSteps(install.log()),
            (std::vector<std::string>{
                "started: replace " + target + " with " + install.staged.string(),
                "waiting for " + parent + " to exit",
                parent + " exited",
                "moved old launcher to " + root +
                    "/.tarnhollow-update/backup-1700000000123/tarn-hollow-launcher",
                "installed " + install.staged.string() + " as " + target,
                "removed " + root + "/.tarnhollow-update/stage-1700000000123",
                "relaunched " + target,
            }));
}

// A folder on another file system: renaming from it fails with EXDEV, also for root.
struct ForeignFolder {
  fs::path path = "/dev/shm/th-helper-" + std::to_string(getpid());
  ForeignFolder() { fs::create_directories(path); }
  ~ForeignFolder() { fs::remove_all(path); }
  bool onOtherDevice(const fs::path& other) const {
    struct stat a {
    }, b{};
    return stat(path.c_str(), &a) == 0 && stat(other.c_str(), &b) == 0 && a.st_dev != b.st_dev;
  }
};

TEST(UpdateHelper, FailedRenameKeepsTheOldLauncherAndDoesNotRelaunch) {
  Install install;
  writeBytes(install.launcher, "old launcher");
  ForeignFolder foreign;
  if (!foreign.onOtherDevice(install.root)) GTEST_SKIP() << "no second file system at /dev/shm";
  const fs::path staged = foreign.path / "tarn-hollow-launcher";
  writeBytes(staged, kNewLauncher);

  const auto helper = th::test::runProcess(helperCommand(install, staged));

  EXPECT_EQ(helper.exitCode, 1);
  EXPECT_EQ(readBytes(install.launcher), "old launcher");
  EXPECT_EQ(readBytes(staged), kNewLauncher);
  EXPECT_FALSE(fs::exists(install.root / "relaunched.txt"));
  EXPECT_NE(
      install.log().find("replacement failed: launcher_rename_failed:Invalid cross-device link\n"),
      std::string::npos)
      << install.log();
  EXPECT_NE(install.log().find("old launcher put back\n"), std::string::npos);
}

TEST(UpdateHelper, StagedFolderInsteadOfFileChangesNothing) {
  Install install;
  writeBytes(install.launcher, "old launcher");

  const auto helper = th::test::runProcess(helperCommand(install, install.stage));

  EXPECT_EQ(helper.exitCode, 1);
  EXPECT_EQ(readBytes(install.launcher), "old launcher");
  EXPECT_TRUE(fs::exists(install.staged));
  EXPECT_NE(install.log().find("replacement failed: staged_launcher_not_a_file\n"),
            std::string::npos)
      << install.log();
}

struct BadCommandLine {
  std::string name;
  std::vector<std::string> args;
  std::string message;
};

void PrintTo(const BadCommandLine& line, std::ostream* out) { *out << line.name; }

class UpdateHelperCommandLine : public testing::TestWithParam<BadCommandLine> {};

TEST_P(UpdateHelperCommandLine, IsRefusedWithUsageAndExitCode2) {
  th::test::TempDir cwd;
  std::vector<std::string> argv{TH_UPDATE_HELPER};
  argv.insert(argv.end(), GetParam().args.begin(), GetParam().args.end());
  th::test::ProcessOptions options;
  options.workDir = cwd.path();

  const auto helper = th::test::runProcess(argv, options);

  EXPECT_EQ(helper.exitCode, 2);
  EXPECT_EQ(helper.err, "tarn-hollow-update-helper: " + GetParam().message + "\n" + kUsage);
  EXPECT_TRUE(fs::is_empty(cwd.path()));
}

INSTANTIATE_TEST_SUITE_P(
    Table, UpdateHelperCommandLine,
    testing::Values(
        BadCommandLine{"NoArguments", {}, "missing --wait-pid"},
        BadCommandLine{"NoRelaunch",
                       {"--wait-pid", "7", "--replace", "s", "--target", "t"},
                       "missing --relaunch"},
        BadCommandLine{"RelaunchWithoutValue",
                       {"--wait-pid", "7", "--replace", "s", "--target", "t", "--relaunch"},
                       "missing value for --relaunch"},
        BadCommandLine{"EmptyReplace",
                       {"--wait-pid", "7", "--replace", "", "--target", "t", "--relaunch", "r"},
                       "missing value for --replace"},
        BadCommandLine{"TargetTwice",
                       {"--wait-pid", "7", "--replace", "s", "--target", "t", "--target", "u"},
                       "repeated --target"},
        BadCommandLine{
            "LauncherSwitch", {"--elevated-update"}, "unknown argument '--elevated-update'"},
        BadCommandLine{
            "ExtraArgument",
            {"--wait-pid", "7", "--replace", "s", "--target", "t", "--relaunch", "r", "extra"},
            "unknown argument 'extra'"},
        BadCommandLine{"PidNotANumber",
                       {"--wait-pid", "abc", "--replace", "s", "--target", "t", "--relaunch", "r"},
                       "--wait-pid needs a positive process id, not 'abc'"},
        BadCommandLine{"PidZero",
                       {"--wait-pid", "0", "--replace", "s", "--target", "t", "--relaunch", "r"},
                       "--wait-pid needs a positive process id, not '0'"},
        BadCommandLine{"PidWithSuffix",
                       {"--wait-pid", "12x", "--replace", "s", "--target", "t", "--relaunch", "r"},
                       "--wait-pid needs a positive process id, not '12x'"}),
    [](const testing::TestParamInfo<BadCommandLine>& info) { return info.param.name; });

}  // namespace
