#pragma once
// A scratch install folder holding a copy of the development-key launcher and its icon, and
// the environment that keeps the launcher's user data inside the scratch folder.

#include <filesystem>

#include "tests/launcher/recording.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace th::test {

struct LauncherInstall {
  TempDir scratch;
  std::filesystem::path root = scratch / "game";
  std::filesystem::path launcher = root / "tarn-hollow-launcher";
  // Written by a recorder installed as the game or the update helper.
  Recording recording{scratch / "started.txt"};

  LauncherInstall() {
    const std::filesystem::path built = TH_LAUNCHER_DEVKEY;
    std::filesystem::create_directories(root / "assets" / "launcher");
    std::filesystem::create_directories(root / "data");
    std::filesystem::copy_file(built, launcher);
    std::filesystem::copy_file(
        built.parent_path() / "assets" / "launcher" / "tarn_hollow_launcher.png",
        root / "assets" / "launcher" / "tarn_hollow_launcher.png");
  }

  ProcessOptions options() const {
    ProcessOptions options;
    options.env["XDG_DATA_HOME"] = (scratch / "xdg").string();
    options.env["TH_RECORD_FILE"] = recording.file.string();
    options.workDir = root;
    return options;
  }
};

}  // namespace th::test
