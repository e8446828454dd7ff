#include "helper/install_check.h"

#include <system_error>

#include "helper/replace_launcher.h"

namespace th::helper {
namespace fs = std::filesystem;
namespace {

constexpr std::string_view kLauncherName = "tarn-hollow-launcher";

fs::path lexicallyAbsolute(const fs::path& path) {
  std::error_code ignored;
  return fs::absolute(path, ignored).lexically_normal();
}

}  // namespace

bool targetNamedLikeLauncher(const HelperOptions& options) {
  return options.target.filename() == kLauncherName;
}

bool describesOneInstall(const HelperOptions& options, std::string& error) {
  std::error_code reason;
  if (!targetNamedLikeLauncher(options)) {
    error = "target_not_a_launcher";
  } else if (lexicallyAbsolute(options.relaunch) != lexicallyAbsolute(options.target)) {
    error = "relaunch_not_the_target";
  } else if (!fs::is_regular_file(fs::symlink_status(options.staged, reason))) {
    error = "staged_launcher_not_a_file";
  } else if (!stagingFolderOf(options.staged, workFolderOf(options.target))) {
    error = "staged_outside_staging_folder";
  } else {
    return true;
  }
  return false;
}

}  // namespace th::helper
