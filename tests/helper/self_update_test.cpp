// A whole self-update with real parts: a release holding a new launcher, published with the
// studio's tool and served by nginx; the real launcher under Xvfb stages it, hands it to the
// real helper and quits; the helper waits for it, swaps the new file in, keeps the old one with
// the update's backups, starts it, and the new launcher finds the install current.

#include <gtest/gtest.h>

#include "tests/support/files.h"
#include "tests/support/nginx_server.h"
#include "tests/support/process.h"
#include "tests/support/release_builder.h"
#include "tests/support/xvfb.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Copies the files of a launcher install (launcher, helper, icon) into `folder`.
void layOutLauncher(const fs::path& folder) {
  const fs::path built = TH_LAUNCHER_DEVKEY, icon = "assets/launcher/tarn_hollow_launcher.png";
  fs::create_directories((folder / icon).parent_path());
  fs::copy_file(built, folder / "tarn-hollow-launcher");
  fs::copy_file(TH_UPDATE_HELPER, folder / "tarn-hollow-update-helper");
  fs::copy_file(built.parent_path() / icon, folder / icon);
}

TEST(SelfUpdate, TheLauncherHandsItsSuccessorToTheHelperWhichSwapsAndRestartsIt) {
  TempDir scratch;
  const fs::path install = scratch / "game", release = scratch / "release";
  const fs::path work = install / ".tarnhollow-update";
  layOutLauncher(install);
  layOutLauncher(release);
  // The next launcher: the same program with bytes appended, which an ELF loader ignores.
  const std::string running = readBytes(install / "tarn-hollow-launcher");
  const std::string successor = running + "launcher 1.0.1";
  writeBytes(release / "tarn-hollow-launcher", successor);
  writeBytes(release / "tarn-hollow", "#!/bin/sh\n");
  const auto published =
      runProcess({TH_PUBLISH_DEVKEY, "release", "--from", release.string(), "--version", "1.0.1",
                  "--key", TH_DEV_PRIVATE_KEY, "--server-root", (scratch / "server").string()});
  ASSERT_EQ(published.exitCode, 0) << published.err;
  NginxServer nginx(scratch / "server");
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  prepareInstall(install, nginx.url(), "1.0.0\n");
  XvfbDisplay display;
  ASSERT_TRUE(display.ok());
  ProcessOptions options;
  options.env["XDG_DATA_HOME"] = (scratch / "xdg").string();
  options.workDir = install;

  ChildProcess launcher({(install / "tarn-hollow-launcher").string()}, display.optionsFor(options));

  EXPECT_EQ(launcher.wait(90s), 0) << launcher.err();
  const auto log = [&] { return readBytes(work / "helper.log"); };
  ASSERT_TRUE(waitUntil([&] { return log().find("relaunched ") != std::string::npos; }, 60s))
      << log();
  // The helper waited for the process that started it, the launcher, to end.
  EXPECT_NE(
      log().find("waiting for launcher (parent " + std::to_string(launcher.pid()) + ") to exit\n"),
      std::string::npos)
      << log();
  EXPECT_EQ(readBytes(install / "tarn-hollow-launcher"), successor);
  EXPECT_EQ(fileMode(install / "tarn-hollow-launcher"), 0755u);
  EXPECT_EQ(readBytes(install / "data" / "game_version"), "1.0.1\n");
  // Besides the log, one backup folder of this update, holding the old launcher; no staging left.
  std::vector<std::string> entries;
  for (const auto& [path, entry] : snapshotFolder(work)) {
    if (path != "helper.log") entries.push_back(path);
  }
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_TRUE(entries[0].starts_with("backup-")) << entries[0];
  EXPECT_EQ(entries[1], entries[0] + "/tarn-hollow-launcher");
  EXPECT_EQ(readBytes(work / entries[1]), running);
  ASSERT_TRUE(waitUntil(
      [&] {
        const std::string requests = nginx.accessLog();
        return requests.find("manifest.json") != requests.rfind("manifest.json");
      },
      30s))
      << "the new launcher checks again: " << nginx.accessLog();
  // SDL may have replaced the window it mapped first: close whichever one is shown now.
  EXPECT_TRUE(waitUntil(
      [&] {
        const auto shown = display.waitForWindow("Tarn Hollow Launcher", 2s);
        return shown && display.requestClose(*shown);
      },
      30s));
}

}  // namespace
}  // namespace th::test
