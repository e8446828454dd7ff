#include "helper/replace_launcher.h"

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

bool replaceLauncher(const fs::path& staged, const fs::path& target, const HelperLog& log,
                     std::string& error) {
  std::error_code reason;
  // At every moment the launcher's name holds a launcher that starts, the old one or the new:
  // the old one is never taken off its name, and the new one replaces it in one rename, with
  // its bit and its bytes on disk before.
  fs::permissions(staged, fs::perms(0755), fs::perm_options::replace, reason);
  const fs::path backup = backupFolderFor(staged, workFolderOf(target)) / target.filename();
  if (!keepBackup(target, backup, log, error)) return false;
  update::flushToDisk(staged);
  fs::rename(staged, target, reason);
  if (reason) {
    error = withReason("launcher_rename_failed", reason);
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
