// The update helper run as a real process; the whole hand-off is in self_update_test.cpp and its
// behaviour under kills in tests/update/crash_safety_test.cpp.
#include <gtest/gtest.h>

#include "tests/support/files.h"
#include "tests/support/process.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;

// A swap that cannot happen (a folder staged instead of a file) keeps the old launcher and does
// not start it: it would stage the same update and hand it over again, for ever.
TEST(UpdateHelper, AFailedSwapKeepsTheOldLauncherAndDoesNotRelaunchIt) {
  TempDir root;
  const fs::path launcher = root / "tarn-hollow-launcher", stage = root / ".tarnhollow-update/s";
  writeBytes(launcher, "#!/bin/sh\ntouch relaunched\n");
  fs::permissions(launcher, fs::perms(0755));
  fs::create_directories(stage);
  ChildProcess gone({"/bin/true"});
  gone.wait(std::chrono::seconds(10));
  const auto helper =
      runProcess({TH_UPDATE_HELPER, "--wait-pid", std::to_string(gone.pid()), "--replace",
                  stage.string(), "--target", launcher.string(), "--relaunch", launcher.string()},
                 {{}, root.path()});
  EXPECT_EQ(helper.exitCode, 1);
  EXPECT_EQ(readBytes(launcher), "#!/bin/sh\ntouch relaunched\n");
  EXPECT_FALSE(fs::exists(root / "relaunched"));
  const std::string log = readBytes(root / ".tarnhollow-update/helper.log");
  EXPECT_NE(log.find("replacement failed: staged_launcher_not_a_file\n"), std::string::npos) << log;
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
    TempDir cwd;
    std::vector<std::string> argv{TH_UPDATE_HELPER};
    argv.insert(argv.end(), args.begin(), args.end());
    const auto helper = runProcess(argv, {{}, cwd.path()});
    EXPECT_EQ(helper.exitCode, 2);
    EXPECT_EQ(helper.err, "tarn-hollow-update-helper: " + message +
                              "\nusage: tarn-hollow-update-helper --wait-pid PID --replace STAGED "
                              "--target TARGET --relaunch PROGRAM\n");
    EXPECT_TRUE(fs::is_empty(cwd.path()));  // no log either
  }
}

}  // namespace
}  // namespace th::test
