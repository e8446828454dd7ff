#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "update/http.h"
#include "update/manifest.h"

namespace th::update {

struct PlannedFile {
  std::string path;
  std::string sha256;
  std::uint64_t size = 0;
  bool executable = false;
  std::filesystem::path destination;  // root / path
  bool missing = false;               // no regular file stood there when planned
};

struct UpdatePlan {
  Manifest manifest;
  std::vector<PlannedFile> files;  // missing or different, in manifest order
  std::uint64_t totalBytes = 0;
  bool launcherUpdate = false;
};

class Updater {
 public:
  explicit Updater(std::filesystem::path root);

  // Fetches, verifies and parses the channel's manifest and lists the files whose local
  // SHA-256 differs. On failure `plan` is unchanged and `error` holds the reason.
  bool check(const std::string& channel, UpdatePlan& plan, std::string& error);

  // Downloads and verifies every planned file into a staging folder, then installs them by
  // rename with backups and rollback, and writes the version marker. A planned launcher
  // executable is left staged; its path goes to `stagedLauncher` when that is not null.
  bool apply(const UpdatePlan& plan, ProgressCallback progress, std::string& error,
             std::filesystem::path* stagedLauncher);

  std::filesystem::path root;
  std::string server;
};

}  // namespace th::update
