// The game package for new players, made with the development key and the address of a real
// nginx: unpacked into a scratch folder and started under Xvfb, the launcher downloads the whole
// game and ends ready to play.
#include <gtest/gtest.h>

#include "tests/launcher/screen_probe.h"
#include "tests/support/folder_snapshot.h"
#include "tests/support/nginx_server.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

TEST(GamePackage, UnpackedAnywhereItDownloadsTheGameAndIsReadyToPlay) {
  TempDir scratch;
  const fs::path release = scratch / "release", server = scratch / "server";
  writeBytes(release / "tarn-hollow", "#!/bin/sh\n");
  writeBytes(release / "data" / "world.pak", std::string(300000, 'w'));
  ASSERT_EQ(runProcess({TH_PUBLISH_DEVKEY, "release", "--from", release.string(), "--version",
                        "1.0.0", "--key", TH_DEV_PRIVATE_KEY, "--server-root", server.string()})
                .exitCode,
            0);
  NginxServer nginx(server);
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  const ProcessResult packed = runProcess(
      {TH_CPACK, "--config", TH_BINARY_DIR "/CPackConfig.cmake", "-D", "CPACK_TH_VARIANT=devkey",
       "-D", "CPACK_TH_UPDATE_SERVER_URL=" + nginx.url(), "-B", (scratch / "package").string()});
  ASSERT_EQ(packed.exitCode, 0) << packed.out << packed.err;
  const fs::path archive = scratch / "package" / "tarn-hollow-linux-x86_64.tar.gz";
  ASSERT_EQ(runProcess({"/usr/bin/tar", "-xzf", archive.string(), "-C", scratch.path().string()})
                .exitCode,
            0);

  const fs::path game = scratch / "tarn-hollow-linux-x86_64";
  std::vector<std::string> packaged;
  for (const auto& [path, entry] : snapshotFolder(game)) packaged.push_back(path);
  EXPECT_EQ(packaged,
            (std::vector<std::string>{
                "assets", "assets/launcher", "assets/launcher/tarn_hollow_launcher.png", "data",
                "data/update_public_key.pem", "data/update_server.txt", "tarn-hollow-launcher",
                "tarn-hollow-update-helper", "tarn-hollow.desktop"}));
  EXPECT_EQ(readBytes(game / "data" / "update_server.txt"), nginx.url() + "\n");

  XvfbDisplay display;
  ASSERT_TRUE(display.ok());
  ProcessOptions options;
  options.env["XDG_DATA_HOME"] = (scratch / "xdg").string();
  ChildProcess launcher({(game / "tarn-hollow-launcher").string()}, display.optionsFor(options));
  EXPECT_TRUE(waitUntil(
      [&] {
        const auto window = display.waitForWindow("Tarn Hollow Launcher", 2s, launcher.pid());
        const auto shot = window ? display.screenshot(*window) : std::nullopt;
        return shot && showsText(*shot, 720, 118, "READY TO PLAY", 1.02f, kStatusNormal);
      },
      90s))
      << launcher.err();
  EXPECT_EQ(readBytes(game / "tarn-hollow"), readBytes(release / "tarn-hollow"));
  EXPECT_EQ(readBytes(game / "data" / "world.pak"), readBytes(release / "data" / "world.pak"));
  EXPECT_EQ(readBytes(game / "data" / "game_version"), "1.0.0\n");
}

}  // namespace
}  // namespace th::test
