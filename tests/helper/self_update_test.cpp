// A whole self-update with real parts: a release holding a new launcher, published with the
// studio's tool and served by nginx; the real launcher under Xvfb stages it, hands it to the
// real helper and quits; the helper swaps it in and starts it, and the new launcher finds the
// install current.

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "tests/support/files.h"
#include "tests/support/nginx_server.h"
#include "tests/support/process.h"
#include "tests/support/release_builder.h"
#include "tests/support/xvfb.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using th::test::readBytes;
using th::test::writeBytes;

namespace {

// Copies the files of a launcher install (launcher, helper, icon) into `folder`.
void layOutLauncher(const fs::path& folder) {
  const fs::path built = TH_LAUNCHER_DEVKEY;
  fs::create_directories(folder / "assets" / "launcher");
  fs::copy_file(built, folder / "tarn-hollow-launcher");
  fs::copy_file(TH_UPDATE_HELPER, folder / "tarn-hollow-update-helper");
  fs::copy_file(built.parent_path() / "assets" / "launcher" / "tarn_hollow_launcher.png",
                folder / "assets" / "launcher" / "tarn_hollow_launcher.png");
}

TEST(SelfUpdate, TheLauncherHandsItsSuccessorToTheHelperWhichSwapsAndRestartsIt) {
  th::test::TempDir scratch;
  const fs::path install = scratch / "game", release = scratch / "release";
  layOutLauncher(install);
  layOutLauncher(release);
  // The next launcher: the same program with bytes appended, which an ELF loader ignores.
  const std::string successor = readBytes(release / "tarn-hollow-launcher") + "launcher 1.0.1";
  writeBytes(release / "tarn-hollow-launcher", successor);
  writeBytes(release / "tarn-hollow", "#!/bin/sh\n");
  const auto published = th::test::runProcess(
      {TH_PUBLISH_DEVKEY, "release", "--from", release.string(), "--version", "1.0.1", "--key",
       TH_DEV_PRIVATE_KEY, "--server-root", (scratch / "server").string()});
  ASSERT_EQ(published.exitCode, 0) << published.err;
  th::test::NginxServer nginx(scratch / "server");
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  th::test::prepareInstall(install, nginx.url(), "1.0.0\n");
  th::test::XvfbDisplay display;
  ASSERT_TRUE(display.ok());
  th::test::ProcessOptions options;
  options.env["XDG_DATA_HOME"] = (scratch / "xdg").string();
  options.workDir = install;

  th::test::ChildProcess launcher({(install / "tarn-hollow-launcher").string()},
                                  display.optionsFor(options));

  EXPECT_EQ(launcher.wait(90s), 0) << launcher.err();
  const auto log = [&] { return readBytes(install / ".tarnhollow-update" / "helper.log"); };
  ASSERT_TRUE(
      th::test::waitUntil([&] { return log().find("relaunched ") != std::string::npos; }, 60s))
      << log();
  EXPECT_EQ(readBytes(install / "tarn-hollow-launcher"), successor);
  EXPECT_EQ(readBytes(install / "data" / "game_version"), "1.0.1\n");
  const auto relaunched = display.waitForWindow("Tarn Hollow Launcher", 30s);
  ASSERT_TRUE(relaunched) << log();
  ASSERT_TRUE(th::test::waitUntil(
      [&] {
        return nginx.accessLog().find("GET /stable/linux/manifest.json") !=
               nginx.accessLog().rfind("GET /stable/linux/manifest.json");
      },
      30s))
      << "the new launcher checks again: " << nginx.accessLog();
  // SDL may have replaced the window it mapped first: close whichever one is shown now.
  EXPECT_TRUE(th::test::waitUntil(
      [&] {
        const auto shown = display.waitForWindow("Tarn Hollow Launcher", 2s);
        return shown && display.requestClose(*shown);
      },
      30s));
}

}  // namespace
