#include "paths/save_migration.h"

#include <array>
#include <filesystem>
#include <system_error>

#include "paths/data_dirs.h"

namespace th {
namespace {

constexpr std::array<const char*, 2> kLegacySaveFiles = {"profile_v07.sav", "settings_v01.cfg"};

bool existsQuietly(const std::filesystem::path& path) {
  std::error_code error;
  return std::filesystem::exists(std::filesystem::status(path, error)) && !error;
}

}  // namespace

void migrateLegacySaveFiles() {
  const std::filesystem::path saves = userSaveDir();
  std::error_code error;
  std::filesystem::create_directories(saves, error);

  const std::filesystem::path legacy = installDir() / "save";
  if (!existsQuietly(legacy)) return;

  for (const char* name : kLegacySaveFiles) {
    const std::filesystem::path source = legacy / name;
    const std::filesystem::path target = saves / name;
    if (!existsQuietly(source)) continue;
    // Never overwrite: the copy in the user folder may be newer than the legacy one.
    if (existsQuietly(target)) continue;
    std::filesystem::copy_file(source, target, std::filesystem::copy_options::none, error);
  }
}

}  // namespace th
