#pragma once
// The recorder program (recorder.cpp) installed as the game or the update helper, and a scratch
// install holding a copy of the development-key launcher with the environment that keeps the
// launcher's user data inside the scratch folder.

#include <filesystem>
#include <sstream>

#include "tests/support/process.h"
#include "tests/support/files.h"

namespace th::test {

struct Recording {
  std::filesystem::path file;  // where the recorder writes; passed as TH_RECORD_FILE

  static void installAt(const std::filesystem::path& destination) {
    std::filesystem::create_directories(destination.parent_path());
    std::filesystem::copy_file(TH_RECORDER, destination,
                               std::filesystem::copy_options::overwrite_existing);
  }

  // "pid=...", "cwd=...", then "arg=..." for each argument, once the recorder has written them.
  std::vector<std::string> lines() const {
    std::vector<std::string> result;
    if (!waitUntil([&] { return std::filesystem::exists(file); }, std::chrono::seconds(20))) {
      return result;
    }
    std::istringstream in(readBytes(file));
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
  }
};

struct LauncherInstall {
  TempDir scratch;
  std::filesystem::path root = scratch / "game";
  std::filesystem::path launcher = root / "tarn-hollow-launcher";
  Recording recording{scratch / "started.txt"};

  LauncherInstall() {
    const std::filesystem::path icon = "assets/launcher/tarn_hollow_launcher.png";
    std::filesystem::create_directories((root / icon).parent_path());
    std::filesystem::copy_file(TH_LAUNCHER_DEVKEY, launcher);
    std::filesystem::copy_file(std::filesystem::path(TH_LAUNCHER_DEVKEY).parent_path() / icon,
                               root / icon);
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
