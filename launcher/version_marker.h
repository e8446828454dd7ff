#pragma once
// The installed game version, as the marker file "data/game_version" says.

#include <filesystem>
#include <string>

#include "launcher/trim.h"
#include "update/text_file.h"

namespace {

// An install without a marker compares as this version.
constexpr const char* kDefaultInstalledVersion = "0.16.117";

inline std::string localVersion(const std::filesystem::path& installDir) {
  std::string version = trim(th::update::readTextFile(installDir / "data" / "game_version"));
  return version.empty() ? kDefaultInstalledVersion : version;
}

}  // namespace
