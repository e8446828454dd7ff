// The real launcher, as a player meets it: a scratch install folder, a real nginx serving a
// signed release, the window under Xvfb read from screenshots and driven with xdotool.

#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "tests/launcher/launcher_install.h"
#include "tests/launcher/screen_probe.h"
#include "tests/launcher/test_release.h"
#include "tests/support/nginx_server.h"
#include "tests/support/release_builder.h"
#include "tests/support/xvfb.h"

namespace th::test {
namespace {

using namespace std::chrono_literals;

constexpr auto kScreenTimeout = 90s;

struct Point {
  int x, y;
};
constexpr Point kPlay{850, 546};
constexpr Point kRefresh{917, 473};

class Launcher : public ::testing::Test {
 protected:
  void start() {
    ASSERT_TRUE(display.ok());
    launcher = std::make_unique<ChildProcess>(std::vector<std::string>{install.launcher.string()},
                                              display.optionsFor(install.options()));
    const auto found = display.waitForWindow("Tarn Hollow Launcher", 20s);
    ASSERT_TRUE(found) << launcher->err();
    window = *found;
  }

  // Polls screenshots until one satisfies `ready`; that one is kept in `screen`. On a time-out
  // the last screenshot is saved beside the build for a look.
  bool waitForScreen(const std::function<bool(const Image&)>& ready) {
    const bool seen = waitUntil(
        [&] {
          const auto shot = display.screenshot(window);
          if (shot) screen = *shot;
          return shot && ready(screen);
        },
        kScreenTimeout);
    if (!seen) {
      const auto* test = ::testing::UnitTest::GetInstance()->current_test_info();
      screen.savePpm(std::string(TH_BINARY_DIR) + "/" + test->name() + ".ppm");
    }
    return seen;
  }

  bool waitForStatus(const std::string& status, Rgb colour) {
    return waitForScreen(
        [&](const Image& image) { return showsText(image, 720, 118, status, 1.02f, colour); });
  }

  bool click(Point point) { return display.click(window, point.x, point.y); }

  XvfbDisplay display;
  LauncherInstall install;
  TempDir serverRoot;
  std::unique_ptr<ChildProcess> launcher;
  std::string window;
  Image screen;
};

int manifestRequests(const NginxServer& server) {
  int count = 0;
  const std::string log = server.accessLog();
  for (size_t at = 0; (at = log.find("GET /stable/linux/manifest.json ", at)) != std::string::npos;
       ++at) {
    ++count;
  }
  return count;
}

TEST_F(Launcher, OpensAFixedSizeTitledWindowAndExitsCleanlyWhenClosed) {
  start();
  EXPECT_EQ(display.windowSize(window), std::make_pair(1040, 640));
  ASSERT_TRUE(display.requestClose(window));
  EXPECT_EQ(launcher->wait(20s), 0);
  EXPECT_EQ(launcher->out(), "");
  EXPECT_TRUE(std::filesystem::is_directory(install.scratch / "xdg" / "tarn-hollow" / "saves"));
}

TEST(LauncherWithoutDisplay, ExitsWithOneAndSaysNothingWhenVideoCannotStart) {
  LauncherInstall install;
  ProcessOptions options = install.options();
  options.env["SDL_VIDEO_DRIVER"] = "no-such-video-driver";
  ProcessResult r = runProcess({install.launcher.string()}, options);
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
}

TEST_F(Launcher, AFreshInstallUpdatesAndEndsReadyToPlay) {
  Release release = th::test::release("1.3.0", {});
  release.releaseNotes =
      "Tarn Hollow v1.3.0\nADDED\n- Lanterns along the causeway, lit at dusk and doused at dawn.";
  release.files = {releaseFile("tarn-hollow", "#!/bin/sh\nexit 0\n", true),
                   releaseFile("data/world.pak", std::string(400000, 'w'))};
  publishRelease(serverRoot.path(), release);
  NginxServer server(serverRoot.path());
  ASSERT_TRUE(server.ok()) << server.errorLog();
  prepareInstall(install.root, server.url());
  start();

  ASSERT_TRUE(waitForStatus("READY TO PLAY", kStatusNormal));
  EXPECT_TRUE(showsText(screen, 720, 154, "INSTALLED VERSION 1.3.0", 0.72f, kDetail));
  EXPECT_TRUE(showsText(screen, 820, 245, "1.3.0", 0.82f, kVersionText));
  EXPECT_TRUE(showsText(screen, 820, 270, "1.3.0", 0.82f, kVersionText));
  EXPECT_TRUE(showsText(screen, 720, 342, "UPDATE 100%", 0.82f, kBarLabel));
  EXPECT_EQ(countColour(screen, 700, 327, 1000, 328, kBarFill), 260);
  EXPECT_TRUE(showsText(screen, 60, 145, "PATCH NOTES // v1.3.0", 1.25f, {232, 236, 226}));
  EXPECT_TRUE(showsText(screen, 60, 193, "Tarn Hollow v1.3.0", 0.78f, kNotesHeading));
  EXPECT_EQ(screen.at(722, 517), kPlayBox);
  EXPECT_EQ(readBytes(install.root / "data" / "game_version"), "1.3.0\n");
  EXPECT_EQ(readBytes(install.root / "data" / "world.pak"), release.files[1].bytes);
  EXPECT_EQ(std::filesystem::status(install.root / "tarn-hollow").permissions(),
            std::filesystem::perms(0755));

  ASSERT_TRUE(display.requestClose(window));
  EXPECT_EQ(launcher->wait(20s), 0);
}

TEST_F(Launcher, WithoutAServerShowsTheServiceUnavailableStatus) {
  prepareInstall(install.root, std::nullopt);
  start();
  ASSERT_TRUE(waitForStatus("UPDATE SERVICE UNAVAILABLE", kStatusUnavailable));
  EXPECT_TRUE(
      showsText(screen, 720, 154, "update_server_not_configured // ONLINE", 0.72f, kDetail));
  EXPECT_TRUE(showsText(screen, 720, 171, "LOGIN STILL REQUIRED", 0.72f, kDetail));
  EXPECT_EQ(screen.at(722, 517), kPlayBox);
}

TEST_F(Launcher, AMandatoryReleaseKeepsTheGameLockedEvenWhenCurrent) {
  Release release;
  release.version = "1.3.0";
  release.mandatory = true;
  release.files = {releaseFile("data/world.pak", "world")};
  publishRelease(serverRoot.path(), release);
  NginxServer server(serverRoot.path());
  ASSERT_TRUE(server.ok()) << server.errorLog();
  prepareInstall(install.root, server.url(), "1.3.0\n");
  writeBytes(install.root / "data" / "world.pak", "world");
  Recording::installAt(install.root / "tarn-hollow");
  start();

  ASSERT_TRUE(waitForStatus("READY TO PLAY", kStatusNormal));
  EXPECT_TRUE(showsText(screen, 720, 154, "VERSION 1.3.0 // stable", 0.72f, kDetail));
  EXPECT_EQ(screen.at(722, 517), kRequiredBox);
  EXPECT_TRUE(showsText(screen, 750, 535, "UPDATE REQUIRED", 1.25f, {255, 230, 216}));

  // Input is handled in order: once the refresh has reached the server, Return and PLAY have
  // been handled before it.
  ASSERT_TRUE(display.key(window, "Return"));
  ASSERT_TRUE(click(kPlay));
  ASSERT_TRUE(click(kRefresh));
  ASSERT_TRUE(waitUntil([&] { return manifestRequests(server) == 2; }, kScreenTimeout));
  ASSERT_TRUE(waitForScreen([](const Image& image) {
    return showsText(image, 720, 118, "READY TO PLAY", 1.02f, kStatusNormal) &&
           showsText(image, 870, 466, "REFRESH", 0.95f, kSmallLabel);
  }));
  EXPECT_EQ(screen.at(722, 517), kRequiredBox);
  EXPECT_TRUE(launcher->running());
  EXPECT_FALSE(install.recording.exists());
}

TEST_F(Launcher, PlayAndReturnStartTheGameInTheInstallFolderAndClose) {
  for (const bool byKey : {false, true}) {
    SCOPED_TRACE(byKey ? "Return" : "PLAY");
    std::filesystem::remove(install.recording.file);
    prepareInstall(install.root, std::nullopt);
    Recording::installAt(install.root / "tarn-hollow");
    start();
    ASSERT_TRUE(waitForStatus("UPDATE SERVICE UNAVAILABLE", kStatusUnavailable));
    ASSERT_TRUE(byKey ? display.key(window, "Return") : click(kPlay));
    EXPECT_EQ(launcher->wait(20s), 0);
    ASSERT_TRUE(waitUntil([&] { return install.recording.exists(); }, 20s));
    const auto lines = install.recording.lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1], "cwd=" + std::filesystem::canonical(install.root).string());
    EXPECT_EQ(lines[2], "arg=tarn-hollow");
  }
}

TEST_F(Launcher, PlayWithTheGameMissingShowsTheFailureAndKeepsRunning) {
  prepareInstall(install.root, std::nullopt);
  start();
  ASSERT_TRUE(waitForStatus("UPDATE SERVICE UNAVAILABLE", kStatusUnavailable));
  ASSERT_TRUE(display.key(window, "Return"));  // says nothing
  ASSERT_TRUE(click(kPlay));
  ASSERT_TRUE(waitForStatus("GAME EXECUTABLE MISSING", kStatusFailed));
  EXPECT_TRUE(showsText(screen, 720, 154, (install.root / "tarn-hollow").string(), 0.72f, kDetail));
  EXPECT_TRUE(launcher->running());
}

TEST_F(Launcher, ANewLauncherInTheReleaseIsHandedToTheUpdateHelper) {
  Release release;
  release.version = "1.3.0";
  release.files = {releaseFile("tarn-hollow-launcher", "a newer launcher build\n", true),
                   releaseFile("data/world.pak", "world")};
  publishRelease(serverRoot.path(), release);
  NginxServer server(serverRoot.path());
  ASSERT_TRUE(server.ok()) << server.errorLog();
  prepareInstall(install.root, server.url());
  Recording::installAt(install.root / "tarn-hollow-update-helper");
  const std::string runningLauncher = readBytes(install.launcher);
  start();

  EXPECT_EQ(launcher->wait(kScreenTimeout), 0);
  ASSERT_TRUE(waitUntil([&] { return install.recording.exists(); }, 20s));
  const auto lines = install.recording.lines();
  ASSERT_EQ(lines.size(), 11u);
  const std::string pid = lines[0].substr(4);
  const std::string target = install.launcher.string();
  EXPECT_EQ(lines[1], "cwd=" + std::filesystem::canonical(install.root).string());
  const std::vector<std::string> arguments(lines.begin() + 2, lines.end());
  const std::filesystem::path staged = arguments[4].substr(4);
  EXPECT_EQ(arguments, (std::vector<std::string>{
                           "arg=tarn-hollow-update-helper", "arg=--wait-pid", "arg=" + pid,
                           "arg=--replace", "arg=" + staged.string(), "arg=--target",
                           "arg=" + target, "arg=--relaunch", "arg=" + target}));
  EXPECT_EQ(staged.filename(), "tarn-hollow-launcher");
  EXPECT_TRUE(staged.parent_path().filename().string().starts_with("stage-"));
  EXPECT_EQ(staged.parent_path().parent_path(), install.root / ".tarnhollow-update");
  EXPECT_EQ(readBytes(staged), "a newer launcher build\n");
  EXPECT_EQ(readBytes(install.launcher), runningLauncher);
  EXPECT_EQ(readBytes(install.root / "data" / "world.pak"), "world");
}

TEST_F(Launcher, AMissingUpdateHelperStillEndsTheLauncher) {
  Release release;
  release.version = "1.3.0";
  release.files = {releaseFile("tarn-hollow-launcher", "a newer launcher build\n", true)};
  publishRelease(serverRoot.path(), release);
  NginxServer server(serverRoot.path());
  ASSERT_TRUE(server.ok()) << server.errorLog();
  prepareInstall(install.root, server.url());
  start();
  EXPECT_EQ(launcher->wait(kScreenTimeout), 0);
}

}  // namespace
}  // namespace th::test
