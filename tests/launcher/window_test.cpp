// The real launcher as a player meets it: a scratch install, a real nginx, the window under Xvfb
// read from screenshots and driven with xdotool; the recorder program stands in for the game.
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <random>
#include <thread>

#include "tests/launcher/screen_probe.h"
#include "tests/support/update_server.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

constexpr const char* kTitle = "Tarn Hollow Launcher";
constexpr std::pair<int, int> kPlay{850, 546}, kRefresh{917, 473};

class Launcher : public ::testing::Test {
 protected:
  void SetUp() override {
    const fs::path icon = "assets/launcher/tarn_hollow_launcher.png";
    fs::create_directories((root / icon).parent_path());
    fs::copy_file(TH_LAUNCHER_DEVKEY, root / "tarn-hollow-launcher");
    fs::copy_file(fs::path(TH_LAUNCHER_DEVKEY).parent_path() / icon, root / icon);
  }

  // Serves a 1.3.0 release from a real nginx and points the install at it.
  void serve(std::vector<ReleaseFile> files, bool mandatory = false) {
    publishRelease(scratch / "www", Release{"1.3.0", std::move(files), mandatory, ""});
    server = std::make_unique<NginxServer>(scratch / "www");
    ASSERT_TRUE(server->ok()) << server->errorLog();
    prepareInstall(root, server->url());
  }

  ProcessOptions options() const {
    ProcessOptions options;
    options.env["XDG_DATA_HOME"] = (scratch / "xdg").string();
    options.env["TH_RECORD_FILE"] = (scratch / "started.txt").string();
    options.workDir = root;
    return display.optionsFor(options);
  }

  // Through a careless parent (the recorder's "--exec-unclean"); in a terminal, as the leader of
  // its session, which ends with it (`script`): a game then records only if it lived on 1 s.
  void start(bool inTerminal = false) {
    ASSERT_TRUE(display.ok());
    const std::string unclean =
        TH_RECORDER " --exec-unclean " + (root / "tarn-hollow-launcher").string();
    ProcessOptions given = options();
    if (inTerminal) given.env["TH_RECORD_AFTER_MS"] = "1000";
    launcher = std::make_unique<ChildProcess>(
        inTerminal ? Lines{"/usr/bin/script", "-qfec", "exec " + unclean, "/dev/null"}
                   : words(unclean),
        given);
    const std::string children = "/proc/" + std::to_string(launcher->pid()) + "/task/" +
                                 std::to_string(launcher->pid()) + "/children";
    ASSERT_TRUE(waitUntil([&] { return !inTerminal || !readBytes(children).empty(); }, 5s));
    launcherPid = inTerminal ? std::stoi(readBytes(children)) : launcher->pid();
    const auto found = display.waitForWindow(kTitle, 20s, launcherPid);
    ASSERT_TRUE(found) << launcher->err();
    window = *found;
  }

  // Polls screenshots (kept in `screen`) until the status line shows in its colour and `also`
  // holds; the window is looked up each time, as SDL may replace the one it first maps.
  bool waitForStatus(const std::string& status, Rgb colour,
                     const std::function<bool(const Image&)>& also = {}) {
    return waitUntil(
        [&] {
          if (const auto current = display.waitForWindow(kTitle, 2s, launcherPid))
            window = *current;
          const auto shot = display.screenshot(window);
          if (shot) screen = *shot;
          return shot && showsText(screen, 720, 118, status, 1.02f, colour) &&
                 (!also || also(screen));
        },
        90s);
  }

  // What a program started by that launcher, however indirectly, must inherit: what it was
  // given, no more.
  std::string cleanStartAfter() const {
    std::string expected = "nice=" + std::to_string(getpriority(PRIO_PROCESS, launcherPid));
    for (const char* fd : {"0", "1", "2"}) {
      const fs::path link = "/proc/" + std::to_string(launcherPid) + "/fd/" + fd;
      expected += std::string("\nfd=") + fd + " " + fs::read_symlink(link).string();
    }
    // As the careless parent left them: SIGUSR1 blocked, SIGHUP and SIGUSR2 ignored.
    return expected + "\nSigBlk:\t0000000000000200\nSigIgn:\t0000000000000801\n";
  }

  bool click(std::pair<int, int> point) { return display.click(window, point.first, point.second); }

  XvfbDisplay display;
  TempDir scratch;
  fs::path root = scratch / "game";
  std::unique_ptr<NginxServer> server;
  std::unique_ptr<ChildProcess> launcher;
  pid_t launcherPid = 0;
  std::string window;
  Image screen;
};

// No server, then a mandatory release installed, then found current: the game stays locked.
TEST_F(Launcher, WalksFromNoServerThroughAnUpdateToAMandatoryLockAndClosesCleanly) {
  prepareInstall(root, std::nullopt);
  writeBytes(root / "save" / "profile_v07.sav", "an old save");  // copied once at start
  start();
  ASSERT_TRUE(waitForStatus("UPDATE SERVICE UNAVAILABLE", kStatusUnavailable));
  EXPECT_EQ(differenceFromReference(screen, "no-server"), "");
  EXPECT_EQ(readBytes(scratch / "xdg/tarn-hollow/saves/profile_v07.sav"), "an old save");
  ASSERT_TRUE(click(kPlay));
  ASSERT_TRUE(waitForStatus("GAME EXECUTABLE MISSING", kStatusFailed));

  serve(
      {{"tarn-hollow", readBytes(TH_RECORDER), true}, {"data/world.pak", std::string(400000, 'w')}},
      true);
  ASSERT_TRUE(click(kRefresh));
  ASSERT_TRUE(waitForStatus("READY TO PLAY", kStatusNormal));
  EXPECT_EQ(differenceFromReference(screen, "installed"), "");
  EXPECT_EQ(readBytes(root / "data" / "game_version"), "1.3.0\n");
  EXPECT_EQ(readBytes(root / "data" / "world.pak"), std::string(400000, 'w'));

  ASSERT_TRUE(click(kRefresh));
  ASSERT_TRUE(waitForStatus("READY TO PLAY", kStatusNormal, [](const Image& image) {
    return showsText(image, 720, 154, "VERSION 1.3.0 // stable", 0.72f, kDetail);
  }));
  EXPECT_EQ(differenceFromReference(screen, "mandatory"), "");
  // Input is handled in order: once the refresh has reached the server and ended, Return and
  // PLAY have been handled before it.
  ASSERT_TRUE(display.key(window, "Return") && click(kPlay) && click(kRefresh));
  const std::string log = server->accessLog(8);  // 3 x (manifest, signature), 2 files
  ASSERT_EQ(std::count(log.begin(), log.end(), '\n'), 8) << log;
  ASSERT_TRUE(waitForStatus("READY TO PLAY", kStatusNormal, [](const Image& image) {
    return showsText(image, 870, 466, "REFRESH", 0.95f, kSmallLabel);
  }));
  EXPECT_FALSE(fs::exists(scratch / "started.txt"));
  ASSERT_TRUE(display.requestClose(window));
  EXPECT_EQ(launcher->wait(20s), 0);
  EXPECT_EQ(launcher->out() + launcher->err(), "");
}

// Closed at random moments of a job, the launcher ends with 0 silently; the next start heals.
TEST_F(Launcher, ClosedAnywhereInAJobEndsCleanlyAndTheNextStartHeals) {
  const std::string pack(4 << 20, 'p');
  publishRelease(scratch / "www",
                 Release{"1.3.0", {{"data/a.pak", pack}, {"data/b.pak", pack}}, false, ""});
  server = std::make_unique<NginxServer>(scratch / "www", "limit_rate 16m;");
  prepareInstall(root, server->url(), "1.2.0\n");
  std::mt19937 random(std::random_device{}());
  for (int trial = 0; trial < 8; ++trial) {
    start();
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 700));
    EXPECT_TRUE(waitUntil(  // the window SDL shows now: it may have replaced the first one
        [&] {
          if (const auto shown = display.waitForWindow(kTitle, 1s, launcherPid))
            display.requestClose(*shown);
          return launcher->wait(200ms).has_value();
        },
        20s));
    EXPECT_EQ(launcher->wait(0ms), 0);
    EXPECT_EQ(launcher->out() + launcher->err(), "");
  }
  start();
  ASSERT_TRUE(waitForStatus("READY TO PLAY", kStatusNormal));
  EXPECT_EQ(readBytes(root / "data" / "game_version"), "1.3.0\n");
  EXPECT_EQ(readBytes(root / "data" / "a.pak") + readBytes(root / "data" / "b.pak"), pack + pack);
}

// The game starts as a child in the install folder, as from a shell, and the launcher closes; the
// terminal it was started from goes with it, and the game lives on. Without video, the launcher
// ends with 1 and says nothing.
TEST_F(Launcher, ReturnStartsTheGameInTheInstallFolderAndNoVideoEndsWithOne) {
  prepareInstall(root, std::nullopt);
  fs::copy_file(TH_RECORDER, root / "tarn-hollow");
  ProcessOptions noVideo = options();
  noVideo.env["SDL_VIDEO_DRIVER"] = "no-such-video-driver";
  const ProcessResult r = runProcess({(root / "tarn-hollow-launcher").string()}, noVideo);
  EXPECT_EQ(std::make_pair(r.exitCode, r.out + r.err), std::make_pair(1, std::string()));
  start(true);
  const std::string expected = cleanStartAfter();
  ASSERT_TRUE(waitForStatus("UPDATE SERVICE UNAVAILABLE", kStatusUnavailable));
  ASSERT_TRUE(display.key(window, "Return"));
  EXPECT_EQ(launcher->wait(20s), 0);
  // The recorder wrote "pid=...", "cwd=...", then "arg=..." for each argument.
  ASSERT_TRUE(waitUntil([&] { return fs::exists(scratch / "started.txt"); }, 20s));
  const std::string started = readBytes(scratch / "started.txt");
  EXPECT_NE(
      started.find("\ncwd=" + fs::canonical(root).string() + "\narg=tarn-hollow\n" + expected),
      std::string::npos)
      << started;
  EXPECT_NE(started.substr(0, started.find('\n')), "pid=" + std::to_string(launcherPid));
}

// The launcher hands its staged successor to the real helper and quits; the helper swaps it in,
// keeps the old one with the backups and starts it; Return there starts the game. The helper and
// the successor are each the recorder in front of the real program (NAME.real): they, and the
// game, get what the first launcher was given.
TEST_F(Launcher, HandsItsSuccessorToTheHelperWhichSwapsAndRestartsIt) {
  const std::string running = readBytes(root / "tarn-hollow-launcher"),
                    successor = readBytes(TH_RECORDER);
  serve({{"tarn-hollow-launcher", successor, true}, {"tarn-hollow", successor, true}});
  fs::copy_file(TH_UPDATE_HELPER, root / "tarn-hollow-update-helper.real");
  fs::copy_file(TH_RECORDER, root / "tarn-hollow-update-helper");
  fs::copy_file(TH_LAUNCHER_DEVKEY, root / "tarn-hollow-launcher.real");
  start();
  const std::string expected = cleanStartAfter();
  EXPECT_EQ(launcher->wait(90s), 0);
  const fs::path work = root / ".tarnhollow-update";
  const auto log = [&] { return readBytes(work / "helper.log"); };
  ASSERT_TRUE(waitUntil([&] { return log().find("relaunched ") != std::string::npos; }, 60s))
      << log();
  // The helper waited for its parent, the launcher, or found it gone already: then its parent is
  // a reaper, never this test, which only a launcher that became the helper itself would leave.
  const std::string waited = "waiting for launcher (parent " + std::to_string(launcherPid);
  EXPECT_TRUE(log().find(waited + ") to exit\n") != std::string::npos ||
              (log().find("launcher already gone (parent ") != std::string::npos &&
               log().find("(parent " + std::to_string(getpid()) + ")") == std::string::npos))
      << log();
  EXPECT_EQ(readBytes(root / "tarn-hollow-launcher"), successor);
  EXPECT_EQ(fileMode(root / "tarn-hollow-launcher"), 0755u);
  Lines kept;  // besides the log: this update's backup folder with the old launcher, no staging
  for (const auto& [path, entry] : snapshotFolder(work)) {
    if (path != "helper.log") kept.push_back(path);
  }
  ASSERT_EQ(kept.size(), 2u);
  EXPECT_EQ(kept[1], kept[0] + "/tarn-hollow-launcher");
  EXPECT_EQ(readBytes(work / kept[1]), running);
  ASSERT_TRUE(waitUntil(  // the new launcher's own check; Return is ignored until it has ended
      [&] {
        const auto shown = display.waitForWindow(kTitle, 2s);
        if (server->accessLog().find("json") != server->accessLog().rfind("json") && shown)
          display.key(*shown, "Return");
        return fs::exists(scratch / "started.txt");
      },
      60s));
  for (const std::string of : {".tarn-hollow-update-helper", ".tarn-hollow-launcher", ""}) {
    const std::string started = readBytes(scratch / ("started.txt" + of));
    EXPECT_EQ(started.substr(started.find("nice=")), expected) << of;
  }
}

}  // namespace
}  // namespace th::test
