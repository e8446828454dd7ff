#include <gtest/gtest.h>

#include "tests/launcher/launcher_install.h"
#include "tests/support/xvfb.h"

namespace th::test {
namespace {

using namespace std::chrono_literals;

TEST(LauncherWindow, OpensAFixedSizeTitledWindowAndExitsCleanlyWhenClosed) {
  XvfbDisplay display;
  ASSERT_TRUE(display.ok());
  LauncherInstall install;
  ChildProcess launcher({install.launcher.string()}, display.optionsFor(install.options()));

  const auto window = display.waitForWindow("Tarn Hollow Launcher", 20s);
  ASSERT_TRUE(window) << launcher.err();
  EXPECT_EQ(display.windowSize(*window), std::make_pair(1040, 640));

  ASSERT_TRUE(display.requestClose(*window));
  EXPECT_EQ(launcher.wait(20s), 0);
  EXPECT_EQ(launcher.out(), "");
  EXPECT_TRUE(std::filesystem::is_directory(install.scratch / "xdg" / "tarn-hollow" / "saves"));
}

TEST(LauncherWindow, ExitsWithOneAndSaysNothingWhenVideoCannotStart) {
  LauncherInstall install;
  ProcessOptions options = install.options();
  options.env["SDL_VIDEO_DRIVER"] = "no-such-video-driver";
  ProcessResult r = runProcess({install.launcher.string()}, options);
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
}

}  // namespace
}  // namespace th::test
