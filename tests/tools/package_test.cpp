// The game package (development key, a real nginx's address), unpacked and started under Xvfb.
#include <gtest/gtest.h>

#include "tests/launcher/screen_probe.h"
#include "tests/support/nginx_server.h"
#include "tests/support/release_builder.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

TEST(GamePackage, UnpackedAnywhereItDownloadsTheGameAndIsReadyToPlay) {
  TempDir scratch;
  Release release;
  release.files = {{"tarn-hollow", "#!/bin/sh\n", true},
                   {"data/world.pak", std::string(300000, 'w')}};
  publishRelease(scratch / "server", release);
  NginxServer nginx(scratch / "server");
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  const ProcessResult packed = runProcess(
      {TH_CPACK, "--config", TH_BINARY_DIR "/CPackConfig.cmake", "-D", "CPACK_TH_VARIANT=devkey",
       "-D", "CPACK_TH_UPDATE_SERVER_URL=" + nginx.url(), "-B", (scratch / "package").string()});
  ASSERT_EQ(packed.exitCode, 0) << packed.out << packed.err;
  const fs::path archive = scratch / "package" / "tarn-hollow-linux-x86_64.tar.gz";
  ASSERT_EQ(runProcess({"/usr/bin/tar", "-xzf", archive, "-C", scratch.path()}).exitCode, 0);
  const fs::path game = scratch / "tarn-hollow-linux-x86_64";
  EXPECT_TRUE(fs::is_regular_file(game / "tarn-hollow-update-helper") &&
              fs::is_regular_file(game / "tarn-hollow.desktop"));

  XvfbDisplay display;
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
  for (const ReleaseFile& file : release.files) EXPECT_EQ(readBytes(game / file.path), file.bytes);
  EXPECT_EQ(readBytes(game / "data" / "game_version"), "1.0.0\n");
}

}  // namespace
}  // namespace th::test
