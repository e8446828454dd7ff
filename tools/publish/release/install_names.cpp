#include "tools/publish/release/install_names.h"

#include <array>
#include <filesystem>
#include <string_view>

#include "update/platform.h"

namespace th::publish {
namespace {

struct KeptFile {
  std::string_view path;
  std::string_view why;  // when a release ships this very file; empty: refused elsewhere
};

// Files an install holds that no release provides. A release file there would be overwritten
// again by the launcher, or take the install's settings away; a release file below one cannot
// be installed at all, since the file stands where its folder would have to be.
constexpr std::array<KeptFile, 3> kKeptFiles{{
    {"data/game_version",
     "the launcher's version marker: it rewrites the file after every update, so every start "
     "would download it again"},
    {"data/update_server.txt",
     "each player's server address, set when the game is packaged: a release must not change it "
     "(move players with an HTTP redirect)"},
    {"data/update_public_key.pem", ""},  // the launcher refuses this name itself
}};

// Folders an install keeps: a release file of the same name would move the folder, and what it
// holds, into the update's backups.
constexpr std::array<std::pair<std::string_view, std::string_view>, 4> kKeptFolders{{
    {"data", "the data folder holding the install's key, server address and version marker"},
    {".tarnhollow-update", "the updater's work folder"},
    {"save", "the folder of the player's old saves"},
    {"userdata", "the player's data folder"},
}};

bool below(std::string_view path, std::string_view folder) {
  return path.size() > folder.size() && path.substr(0, folder.size()) == folder &&
         path[folder.size()] == '/';
}

std::string keptFileConflict(const std::string& path) {
  for (const KeptFile& kept : kKeptFiles) {
    if (path == kept.path && !kept.why.empty()) return std::string(kept.why);
    if (below(path, kept.path)) {
      return "lies below " + std::string(kept.path) + ", a file in every install";
    }
  }
  return {};
}

std::string executableConflict(const std::string& path) {
  const std::string launcher = update::launcherBinaryName();
  if (path != launcher && std::filesystem::path(path).filename() == launcher) {
    return "the launcher takes any file named " + launcher +
           " for itself and hands it to the update helper on every start; it belongs at the top";
  }
  for (const std::string& executable :
       {launcher, update::helperBinaryName(), update::gameBinaryName()}) {
    if (below(path, executable)) return "lies below " + executable + ", a file in every install";
  }
  return {};
}

}  // namespace

std::string installNameConflict(const std::string& path) {
  for (const auto& [folder, what] : kKeptFolders) {
    if (path == folder) return "would displace " + std::string(what);
  }
  if (std::string conflict = keptFileConflict(path); !conflict.empty()) return conflict;
  return executableConflict(path);
}

}  // namespace th::publish
