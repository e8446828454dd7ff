// The update helper run as a real process; the hand-off is in the window test, kills in the
// power-cut test.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <regex>

#include "tests/support/system.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

const std::string kOld = "#!/bin/sh\ntouch relaunched\n", kStaged = ".tarnhollow-update/stage-1/",
                  kTarget = " --target ./tarn-hollow-launcher --relaunch ./tarn-hollow-launcher";

// A bad command line, or one that is not this install's launcher and the file its engine staged,
// is refused with 2 before the wait for a launcher still running: nothing renamed or started. A
// failed relaunch ends with 1, said in the log. Help and version are answered before all else.
TEST(UpdateHelper, RefusesWhatIsNotOneInstallsHandOffAndReportsFailures) {
  const std::string usage =
      "\nusage: tarn-hollow-update-helper --wait-pid PID --replace STAGED "
      "--target TARGET --relaunch PROGRAM\n";
  ChildProcess running({"/bin/sleep", "60"});
  const std::string swap = "--wait-pid " + std::to_string(running.pid()) + " --replace ";
  const std::vector<std::tuple<std::string, int, std::string>> table = {
      {"", 2, "missing --wait-pid" + usage},
      {"--wait-pid 0 --help", 0,
       "starts the launcher again. Players need not run it themselves.\n\nusage: "},
      {swap + kStaged + "new --version" + kTarget, 0, "tarn-hollow-update-helper " TH_VERSION "\n"},
      {"--wait-pid 0 --replace s --target t --relaunch r", 2,
       "--wait-pid needs a positive process id, not '0'" + usage},
      {swap + kStaged + "new --target ./l --relaunch ./l", 2, "refused: target_not_a_launcher\n"},
      {swap + kStaged + "new --target ./tarn-hollow-launcher --relaunch ./l", 2,
       "refused: relaunch_not_the_target\n"},
      {swap + ".tarnhollow-update/new" + kTarget, 2, "refused: staged_outside_staging_folder\n"},
      {swap + kStaged + "link" + kTarget, 2, "refused: staged_launcher_not_a_file\n"},
      {swap + kStaged + "folder" + kTarget, 2, "refused: staged_launcher_not_a_file\n"},
      {"--wait-pid 2147483647 --replace " + kStaged + "garbage" + kTarget, 1,
       "relaunch of ./tarn-hollow-launcher failed: relaunch_exec_failed:Exec format error\n"}};
  for (const auto& [args, exitCode, message] : table) {
    SCOPED_TRACE(message);
    TempDir cwd;
    for (const std::string& file :
         std::vector<std::string>{"tarn-hollow-launcher", "l", "new", ".tarnhollow-update/new",
                                  kStaged + "new", kStaged + "garbage"})
      writeBytes(cwd / file, file.ends_with("garbage") ? "not a program" : kOld);
    fs::permissions(cwd / "tarn-hollow-launcher", fs::perms(0755));
    fs::create_directories(cwd / kStaged / "folder");
    fs::create_symlink("new", cwd / kStaged / "link");
    const auto helper =
        runProcess({"/bin/sh", "-c", TH_UPDATE_HELPER " " + args}, {{}, cwd.path(), 10s});
    EXPECT_EQ(helper.exitCode, exitCode);
    const std::string log = readBytes(cwd / ".tarnhollow-update/helper.log");
    const std::string& said = exitCode == 0 ? helper.out : exitCode == 2 ? helper.err : log;
    EXPECT_NE(said.find(message), std::string::npos) << helper.err << log;
    EXPECT_EQ(helper.out.empty(), exitCode != 0);
    if (message.starts_with("refused") && !message.ends_with("target_not_a_launcher\n")) {
      EXPECT_NE(log.find(" " + message), std::string::npos) << log;
    }
    EXPECT_EQ(readBytes(cwd / "tarn-hollow-launcher"), exitCode == 1 ? "not a program" : kOld);
    EXPECT_FALSE(fs::exists(cwd / "relaunched"));
  }
}

// The new launcher starts after the old one ended (the helper's parent, or the process named), with
// what the helper was given but its descriptors beyond 0-2; also when the old one led a terminal's
// session, whose end hangs up its process group. The log is never written through a link.
TEST(UpdateHelper, StartsTheNewLauncherCleanlyOnlyAfterTheOldOneEnded) {
  const std::string args = " --replace " + kStaged + "tarn-hollow-launcher" + kTarget;
  const std::string nice = "nice=" + std::to_string(getpriority(PRIO_PROCESS, 0));
  const std::string unclean = "nice=" + std::to_string(getpriority(PRIO_PROCESS, 0) + 3) +
                              "\nfd=0 .*\nfd=1 .*\nfd=2 .*\nSigBlk:\t0{13}200\nSigIgn:\t0{13}80";
  // SIGHUP and SIGUSR2 ignored; a shell's background job has SIGINT and SIGQUIT ignored too.
  const struct {
    const char* name;
    bool helperIsChildOfLauncher, inTerminal;
    std::string given;
  } cases[] = {
      {"own pid, parent is the launcher", true, false, unclean + "7\n"},
      {"other pid", false, false, unclean + "1\n"},
      {"the launcher led a terminal's session", true, true,
       nice + "\nfd=0 .*\nfd=1 .*\nfd=2 .*\nSigBlk:\t0{16}\nSigIgn:\t0{15}6\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir root;  // the old launcher is a shell, so that it can start the helper as its child
    const std::string launcher = (root / "tarn-hollow-launcher").string();
    fs::copy_file("/bin/sh", launcher);
    fs::create_directories(root / kStaged);
    fs::copy_file(TH_RECORDER, root / kStaged / "tarn-hollow-launcher");
    writeBytes(root / "victim", "");
    fs::create_symlink("../victim", root / ".tarnhollow-update/helper.log");
    const ProcessOptions options{{{"TH_RECORD_FILE", (root / "record").string()}}, root.path()};
    writeBytes(root / "old", (c.helperIsChildOfLauncher ? "sh -c 'exec \"$0\" --wait-pid $$" +
                                                              args + "' " TH_UPDATE_HELPER " & "
                                                        : "") +
                                 std::string("sleep 1; touch ended"));
    ChildProcess old(c.inTerminal
                         ? std::vector<std::string>{"/usr/bin/script", "-qfec",
                                                    "exec " + launcher + " old", "/dev/null"}
                         : std::vector<std::string>{TH_RECORDER, "--exec-unclean", launcher, "old"},
                     options);
    std::optional<ChildProcess> helper;
    if (!c.helperIsChildOfLauncher) {
      helper.emplace(std::vector<std::string>{"/bin/sh", "-c",
                                              "exec " TH_RECORDER
                                              " --exec-unclean " TH_UPDATE_HELPER " --wait-pid " +
                                                  std::to_string(old.pid()) + args},
                     options);
    }
    EXPECT_EQ(old.wait(10s), 0);  // reaped here, or the helper would see it linger as a zombie
    ASSERT_TRUE(waitUntil([&] { return fs::exists(root / "record"); }, 20s));
    EXPECT_GE(fs::last_write_time(root / "record"), fs::last_write_time(root / "ended"));
    const std::string record = readBytes(root / "record");
    EXPECT_TRUE(std::regex_search(record, std::regex(c.given))) << record;
    EXPECT_EQ(readBytes(root / "victim"), "");
  }
}

// A launcher that has not quit after 30 s is replaced anyway: a hung one holds no update back.
TEST(UpdateHelper, ReplacesALauncherStillRunningAfterThirtySeconds) {
  TempDir root;
  writeBytes(root / "tarn-hollow-launcher", kOld);
  writeBytes(root / kStaged / "l", kOld);
  ChildProcess running({"/bin/sleep", "60"});
  const std::string pid = std::to_string(running.pid());
  const ProcessResult helper = runProcess(
      words(TH_UPDATE_HELPER " --wait-pid " + pid + " --replace " + kStaged + "l" + kTarget),
      underFasterClock({{}, root.path()}));
  EXPECT_EQ(helper.exitCode, 0) << helper.err;
  EXPECT_PRED_FORMAT2(testing::IsSubstring,
                      "process " + pid + " still running after 30 s; replacing anyway\n",
                      readBytes(root / ".tarnhollow-update/helper.log"));
  EXPECT_TRUE(waitUntil([&] { return fs::exists(root / "relaunched"); }, 10s));
}

// The staged file is judged before the wait and installed after it: swapped meanwhile for a link,
// it is neither followed (the mode changed through the file judged) nor installed nor started.
TEST(UpdateHelper, InstallsOnlyTheFileItJudged) {
  TempDir root;
  for (const std::string& file :
       std::vector<std::string>{"tarn-hollow-launcher", kStaged + "l", "victim"})
    writeBytes(root / file, kOld);
  ChildProcess running({"/bin/sleep", "60"});
  ChildProcess helper(words(TH_UPDATE_HELPER " --wait-pid " + std::to_string(running.pid()) +
                            " --replace " + kStaged + "l" + kTarget),
                      {{}, root.path()});
  const auto log = [&] { return readBytes(root / ".tarnhollow-update/helper.log"); };
  ASSERT_TRUE(
      waitUntil([&] { return log().find("waiting for process") != std::string::npos; }, 20s));
  fs::remove(root / kStaged / "l");
  fs::create_symlink("../../victim", root / kStaged / "l");
  running.kill(SIGKILL);
  running.wait(10s);
  EXPECT_EQ(helper.wait(20s), 1);
  EXPECT_NE(log().find("replacement failed: staged_launcher_changed\n"), std::string::npos)
      << log();
  EXPECT_EQ(fileMode(root / "victim"), 0644u);
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(root / "tarn-hollow-launcher")));
  EXPECT_FALSE(fs::exists(root / "relaunched"));
}

}  // namespace
}  // namespace th::test
