#pragma once
// The recorder program (tests/launcher/recorder.cpp) installed as the game or the update helper,
// and what it wrote about how it was started.

#include <filesystem>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

namespace th::test {

struct Recording {
  std::filesystem::path file;  // where the recorder writes; passed as TH_RECORD_FILE

  // Copies the recorder to `destination`, executable.
  static void installAt(const std::filesystem::path& destination) {
    std::filesystem::create_directories(destination.parent_path());
    std::filesystem::copy_file(TH_RECORDER, destination,
                               std::filesystem::copy_options::overwrite_existing);
    std::filesystem::permissions(destination, std::filesystem::perms(0755));
  }

  bool exists() const { return std::filesystem::exists(file); }

  // "pid=...", "cwd=...", then "arg=..." for each argument; empty when nothing was recorded.
  std::vector<std::string> lines() const {
    std::vector<std::string> result;
    if (!exists()) return result;
    std::istringstream in(readBytes(file));
    for (std::string line; std::getline(in, line);) result.push_back(line);
    return result;
  }
};

}  // namespace th::test
