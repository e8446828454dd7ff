#include "helper/replace_launcher.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>

#include "update/disk_flush.h"

namespace th::helper {
namespace fs = std::filesystem;
namespace {

constexpr std::string_view kStagePrefix = "stage-";

fs::path normalised(const fs::path& path) {
  std::error_code error;
  const fs::path resolved = fs::weakly_canonical(fs::absolute(path, error), error);
  return error ? fs::absolute(path, error).lexically_normal() : resolved;
}

std::string millisecondStamp() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
}

// Backups of one update stay together: a launcher staged in "stage-<stamp>" goes to the
// "backup-<stamp>" folder that the engine made for the other files of the same update.
fs::path backupFolderFor(const fs::path& staged, const fs::path& workFolder) {
  const auto stage = stagingFolderOf(staged, workFolder);
  const std::string stamp =
      stage ? stage->filename().string().substr(kStagePrefix.size()) : millisecondStamp();
  return workFolder / ("backup-" + stamp);
}

std::string withReason(std::string code, const std::error_code& reason) {
  return reason ? code + ":" + reason.message() : code;
}

// Keeps the installed launcher, if there is one, in the backup area under a second name while it
// stays on its own: a hard link, or a copy where links cannot be made (another file system, a
// file system without links). A backup left by an interrupted run of the same update is
// replaced.
bool keepBackup(const fs::path& target, const fs::path& backup, const HelperLog& log,
                std::string& error) {
  std::error_code reason;
  if (!fs::exists(fs::symlink_status(target, reason))) return true;
  fs::create_directories(backup.parent_path(), reason);
  fs::remove(backup, reason);
  fs::create_hard_link(target, backup, reason);
  if (!reason) {
    log.line("linked old launcher to " + backup.string());
    return true;
  }
  fs::copy_file(target, backup, fs::copy_options::overwrite_existing, reason);
  if (reason) {
    error = withReason("launcher_backup_failed", reason);
    return false;
  }
  update::flushToDisk(backup);
  log.line("copied old launcher to " + backup.string());
  return true;
}

bool holdsFile(const fs::path& path, const update::FileDescriptor& file) {
  struct stat named {
  }, opened{};
  return lstat(path.c_str(), &named) == 0 && fstat(file.get(), &opened) == 0 &&
         named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
}

// The name got a file nobody judged: the backup, if there was an old launcher, takes it back.
void putBackOldLauncher(const fs::path& backup, const fs::path& target, const HelperLog& log) {
  std::error_code reason;
  if (fs::exists(fs::symlink_status(backup, reason))) {
    fs::rename(backup, target, reason);
  } else {
    fs::remove(target, reason);
  }
  log.line(reason ? "could not take back " + target.string() + ": " + reason.message()
                  : "took back " + target.string());
}

}  // namespace

fs::path workFolderOf(const fs::path& target) {
  return normalised(target.parent_path()) / ".tarnhollow-update";
}

std::optional<fs::path> stagingFolderOf(const fs::path& staged, const fs::path& workFolder) {
  const fs::path work = normalised(workFolder);
  const fs::path file = normalised(staged);
  for (fs::path folder = file.parent_path(); folder != folder.parent_path();
       folder = folder.parent_path()) {
    if (folder.parent_path() != work) continue;
    if (folder.filename().string().starts_with(kStagePrefix)) return folder;
    return std::nullopt;
  }
  return std::nullopt;
}

bool replaceLauncher(const update::FileDescriptor& judged, const fs::path& staged,
                     const fs::path& target, const HelperLog& log, std::string& error) {
  // At every moment the launcher's name holds a launcher that starts, the old one or the new:
  // the old one is never taken off its name, and the new one replaces it in one rename, with
  // its bit and its bytes on disk before. Through the descriptor: the path may name another
  // file by now, or a link to one.
  if (fchmod(judged.get(), 0755) != 0) {
    error = withReason("launcher_mode_failed", std::error_code(errno, std::system_category()));
    return false;
  }
  const fs::path backup = backupFolderFor(staged, workFolderOf(target)) / target.filename();
  if (!keepBackup(target, backup, log, error)) return false;
  fsync(judged.get());  // a flush protects the result but never changes it
  std::error_code reason;
  fs::rename(staged, target, reason);
  if (reason) {
    error = withReason("launcher_rename_failed", reason);
    return false;
  }
  if (!holdsFile(target, judged)) {
    putBackOldLauncher(backup, target, log);
    error = "staged_launcher_changed";
    return false;
  }
  update::flushToDisk(target.parent_path());
  log.line("installed " + staged.string() + " as " + target.string());
  return true;
}

void removeStagingFolder(const fs::path& staged, const fs::path& target, const HelperLog& log) {
  const auto stage = stagingFolderOf(staged, workFolderOf(target));
  if (!stage) {
    log.line("staged file was outside the work folder; nothing to clean up");
    return;
  }
  std::error_code reason;
  fs::remove_all(*stage, reason);
  log.line(reason ? "could not remove " + stage->string() + ": " + reason.message()
                  : "removed " + stage->string());
}

}  // namespace th::helper
