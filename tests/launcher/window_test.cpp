// The real launcher, as a player meets it: a scratch install folder, a real nginx serving a
// signed release, the window under Xvfb read from screenshots and driven with xdotool.
#include <gtest/gtest.h>

#include "tests/launcher/launcher_install.h"
#include "tests/launcher/screen_probe.h"
#include "tests/support/nginx_server.h"
#include "tests/support/release_builder.h"
#include "tests/support/xvfb.h"

namespace th::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* kTitle = "Tarn Hollow Launcher";
constexpr std::pair<int, int> kPlay{850, 546}, kRefresh{917, 473};

class Launcher : public ::testing::Test {
 protected:
  // Serves the release from a real nginx and points the install at it.
  void serve(Release release, const std::optional<std::string>& marker = std::nullopt) {
    publishRelease(www.path(), release);
    server = std::make_unique<NginxServer>(www.path());
    ASSERT_TRUE(server->ok()) << server->errorLog();
    prepareInstall(install.root, server->url(), marker);
  }

  void start() {
    ASSERT_TRUE(display.ok());
    launcher = std::make_unique<ChildProcess>(std::vector<std::string>{install.launcher.string()},
                                              display.optionsFor(install.options()));
    const auto found = display.waitForWindow(kTitle, 20s, launcher->pid());
    ASSERT_TRUE(found) << launcher->err();
    window = *found;
  }

  // Polls screenshots until one shows the status line in its colour (and `also` holds); that
  // one is kept in `screen`.
  bool waitForStatus(const std::string& status, Rgb colour,
                     const std::function<bool(const Image&)>& also = {}) {
    return waitUntil(
        [&] {
          followWindow();
          const auto shot = display.screenshot(window);
          if (shot) screen = *shot;
          return shot && showsText(screen, 720, 118, status, 1.02f, colour) &&
                 (!also || also(screen));
        },
        90s);
  }

  // SDL may replace the window it first maps while it sets up the renderer, so the launcher's
  // visible window is looked up again before each look at the screen.
  void followWindow() {
    if (const auto current = display.waitForWindow(kTitle, 2s, launcher->pid())) window = *current;
  }

  bool click(std::pair<int, int> point) { return display.click(window, point.first, point.second); }

  XvfbDisplay display;
  LauncherInstall install;
  TempDir www;
  std::unique_ptr<NginxServer> server;
  std::unique_ptr<ChildProcess> launcher;
  std::string window;
  Image screen;
};

Release version130(std::vector<ReleaseFile> files) {
  Release release;
  release.version = "1.3.0";
  release.files = std::move(files);
  return release;
}

TEST(LauncherWithoutDisplay, ExitsWithOneAndSaysNothingWhenVideoCannotStart) {
  LauncherInstall install;
  ProcessOptions options = install.options();
  options.env["SDL_VIDEO_DRIVER"] = "no-such-video-driver";
  const ProcessResult r = runProcess({install.launcher.string()}, options);
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.out + r.err, "");
}

// The game is started as a child of its own, in the install folder, and the launcher closes.
TEST_F(Launcher, WithoutAServerShowsWhyThenPlayReportsAMissingGameAndReturnStartsIt) {
  prepareInstall(install.root, std::nullopt);
  start();
  ASSERT_TRUE(waitForStatus("UPDATE SERVICE UNAVAILABLE", kStatusUnavailable));
  EXPECT_EQ(std::make_pair(screen.width, screen.height), std::make_pair(1040, 640));
  ASSERT_TRUE(click(kPlay));
  ASSERT_TRUE(waitForStatus("GAME EXECUTABLE MISSING", kStatusFailed));
  Recording::installAt(install.root / "tarn-hollow");
  ASSERT_TRUE(display.key(window, "Return"));
  EXPECT_EQ(launcher->wait(20s), 0);
  const auto lines = install.recording.lines();
  EXPECT_EQ(lines, (std::vector<std::string>{
                       lines.at(0), "cwd=" + std::filesystem::canonical(install.root).string(),
                       "arg=tarn-hollow"}));
  EXPECT_NE(lines.at(0), "pid=" + std::to_string(launcher->pid()));
  EXPECT_EQ(launcher->out() + launcher->err(), "");
}

TEST_F(Launcher, AFreshInstallUpdatesAndEndsReadyToPlay) {
  serve(version130(
      {{"tarn-hollow", "#!/bin/sh\n", true}, {"data/world.pak", std::string(400000, 'w')}}));
  start();
  ASSERT_TRUE(waitForStatus("READY TO PLAY", kStatusNormal));
  EXPECT_TRUE(showsText(screen, 720, 154, "INSTALLED VERSION 1.3.0", 0.72f, kDetail));
  EXPECT_TRUE(showsText(screen, 720, 342, "UPDATE 100%", 0.82f, kBarLabel));
  EXPECT_EQ(countColour(screen, 700, 327, 1000, 328, kBarFill), 260);
  EXPECT_EQ(readBytes(install.root / "data" / "game_version"), "1.3.0\n");
  EXPECT_EQ(readBytes(install.root / "data" / "world.pak"), std::string(400000, 'w'));
}

TEST_F(Launcher, AMandatoryReleaseKeepsTheGameLockedEvenWhenCurrent) {
  Release locked = version130({{"data/world.pak", "world"}});
  locked.mandatory = true;
  serve(locked, "1.3.0\n");
  writeBytes(install.root / "data" / "world.pak", "world");
  Recording::installAt(install.root / "tarn-hollow");
  start();
  ASSERT_TRUE(waitForStatus("READY TO PLAY", kStatusNormal));
  EXPECT_EQ(screen.at(722, 517), kRequiredBox);
  EXPECT_TRUE(showsText(screen, 750, 535, "UPDATE REQUIRED", 1.25f, {255, 230, 216}));
  // Input is handled in order: once the refresh has reached the server and ended, Return and
  // PLAY have been handled before it.
  ASSERT_TRUE(display.key(window, "Return") && click(kPlay) && click(kRefresh));
  ASSERT_TRUE(waitUntil(
      [&] {
        const std::string log = server->accessLog();
        return log.find("manifest.json") != log.rfind("manifest.json");
      },
      90s));
  ASSERT_TRUE(waitForStatus("READY TO PLAY", kStatusNormal, [](const Image& image) {
    return showsText(image, 870, 466, "REFRESH", 0.95f, kSmallLabel);
  }));
  EXPECT_FALSE(std::filesystem::exists(install.recording.file));
  ASSERT_TRUE(display.requestClose(window));
  EXPECT_EQ(launcher->wait(20s), 0);
}

TEST_F(Launcher, ANewLauncherInTheReleaseIsHandedToTheUpdateHelper) {
  serve(version130(
      {{"tarn-hollow-launcher", "a newer launcher build\n", true}, {"data/world.pak", "world"}}));
  Recording::installAt(install.root / "tarn-hollow-update-helper");
  const std::string runningLauncher = readBytes(install.launcher);
  start();
  EXPECT_EQ(launcher->wait(90s), 0);
  const auto lines = install.recording.lines();
  ASSERT_EQ(lines.size(), 11u);
  const std::string target = install.launcher.string(), staged = lines[6].substr(4);
  EXPECT_NE(lines[0], "pid=" + std::to_string(launcher->pid()));  // a new process, not this one
  EXPECT_EQ(lines, (std::vector<std::string>{
                       lines[0], "cwd=" + std::filesystem::canonical(install.root).string(),
                       "arg=tarn-hollow-update-helper", "arg=--wait-pid",
                       "arg=" + lines[0].substr(4), "arg=--replace", "arg=" + staged,
                       "arg=--target", "arg=" + target, "arg=--relaunch", "arg=" + target}));
  EXPECT_EQ(readBytes(staged), "a newer launcher build\n");
  EXPECT_EQ(readBytes(install.launcher), runningLauncher);
}

}  // namespace
}  // namespace th::test
