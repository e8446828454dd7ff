#include "helper/install_check.h"

#include <fcntl.h>
#include <sys/stat.h>

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

// Never through a link, and without waiting for a writer when a pipe stands there.
update::FileDescriptor openRegularFile(const fs::path& path) {
  update::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (file.get() >= 0 && fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode)) return file;
  return update::FileDescriptor(-1);
}

}  // namespace

bool targetNamedLikeLauncher(const HelperOptions& options) {
  return options.target.filename() == kLauncherName;
}

bool describesOneInstall(const HelperOptions& options, update::FileDescriptor& staged,
                         std::string& error) {
  if (!targetNamedLikeLauncher(options)) {
    error = "target_not_a_launcher";
  } else if (lexicallyAbsolute(options.relaunch) != lexicallyAbsolute(options.target)) {
    error = "relaunch_not_the_target";
  } else if (!stagingFolderOf(options.staged, workFolderOf(options.target))) {
    error = "staged_outside_staging_folder";
  } else if (staged = openRegularFile(options.staged); staged.get() < 0) {
    error = "staged_launcher_not_a_file";
  } else {
    return true;
  }
  return false;
}

}  // namespace th::helper
