// The update helper run as a real process; the hand-off is in the window test, kills in the
// power-cut test.
#include <gtest/gtest.h>

#include "tests/support/system.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;

// A bad command line (usage, exit code 2, no log) or a failed swap (a folder staged: exit code 1,
// logged) neither replaces nor starts the launcher, which would hand the update over for ever. A
// relaunch whose exec fails is a failure too: the player would otherwise be left with nothing.
TEST(UpdateHelper, RefusedOrFailedRunsKeepTheOldLauncherAndDoNotStartIt) {
  const std::string usage =
      "\nusage: tarn-hollow-update-helper --wait-pid PID --replace STAGED "
      "--target TARGET --relaunch PROGRAM\n";
  const std::vector<std::tuple<std::string, int, std::string>> table = {
      {"", 2, "missing --wait-pid"},
      {"--wait-pid 7 --replace", 2, "missing value for --replace"},
      {"--wait-pid 7 --replace s --target t --target u", 2, "repeated --target"},
      {"--wait-pid 7 --replace s --target t --relaunch r extra", 2, "unknown argument 'extra'"},
      {"--wait-pid 0 --replace s --target t --relaunch r", 2,
       "--wait-pid needs a positive process id, not '0'"},
      {"--wait-pid 2147483647 --replace ./s --target ./l --relaunch ./l", 1,
       "replacement failed: staged_launcher_not_a_file"},
      {"--wait-pid 2147483647 --replace ./n --target ./l --relaunch ./gone", 1,
       "relaunch of ./gone failed: relaunch_exec_failed:No such file or directory"}};
  for (const auto& [args, exitCode, message] : table) {
    SCOPED_TRACE(message);
    TempDir cwd;  // holds the launcher l, a folder s and a copy n of l
    writeBytes(cwd / "l", "#!/bin/sh\ntouch relaunched\n");
    writeBytes(cwd / "n", "#!/bin/sh\ntouch relaunched\n");
    fs::permissions(cwd / "l", fs::perms(0755));
    fs::create_directories(cwd / "s");
    const auto helper =
        runProcess({"/bin/sh", "-c", TH_UPDATE_HELPER " " + args}, {{}, cwd.path()});
    EXPECT_EQ(helper.exitCode, exitCode);
    const fs::path log = cwd / ".tarnhollow-update/helper.log";
    const std::string said = fs::exists(log) ? readBytes(log) : helper.err;
    const std::string refusal = "tarn-hollow-update-helper: " + message + usage;
    EXPECT_NE(said.find(exitCode == 2 ? refusal : message + "\n"), std::string::npos) << said;
    EXPECT_EQ(readBytes(cwd / "l"), "#!/bin/sh\ntouch relaunched\n");
    EXPECT_FALSE(fs::exists(cwd / "relaunched"));
  }
}

}  // namespace
}  // namespace th::test
