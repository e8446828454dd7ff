#include "update/updater.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <string_view>
#include <system_error>
#include <utility>

#include "update/disk_flush.h"
#include "update/platform.h"
#include "update/signature.h"
#include "update/text_file.h"
#include "update/version.h"

namespace th::update {
namespace {

namespace fs = std::filesystem;

// (installed place, backup place); the backup place is empty for a file new to the install.
using Journal = std::vector<std::pair<fs::path, fs::path>>;

bool fail(std::string& error, std::string code) {
  error = std::move(code);
  return false;
}

bool somethingAt(const fs::path& path) {
  std::error_code ignored;
  const fs::file_type type = fs::status(path, ignored).type();
  return type != fs::file_type::none && type != fs::file_type::not_found;
}

// The last component compared as text: a path object per planned file cost more than the test.
bool isLauncher(const std::string& relativePath) {
  return std::string_view(relativePath).substr(relativePath.rfind('/') + 1) == launcherBinaryName();
}

std::string channelFolderUrl(const std::string& server, const std::string& channel,
                             const std::string& platform) {
  return joinUrl(joinUrl(server, channel), platform);
}

// Only the end is trimmed: servers and editors add line ends to the signature file.
void trimSignatureEnd(std::string& signature) {
  while (!signature.empty() && (signature.back() == ' ' || signature.back() == '\t' ||
                                signature.back() == '\r' || signature.back() == '\n')) {
    signature.pop_back();
  }
}

bool fetchSignedManifest(const std::string& folderUrl, std::string& manifest,
                         std::string& signature, std::string& error) {
  if (!httpGet(joinUrl(folderUrl, "manifest.json"), manifest, error)) return false;
  if (!httpGet(joinUrl(folderUrl, "manifest.sig"), signature, error)) return false;
  trimSignatureEnd(signature);
  return true;
}

// The size is never compared: the digest alone decides whether a local file is current.
void planIfStale(const fs::path& root, const ManifestFile& entry, UpdatePlan& plan) {
  const fs::path destination = root / entry.path;
  std::error_code ignored;
  const bool regular = fs::is_regular_file(fs::status(destination, ignored));
  if (regular) {
    const std::string digest = sha256File(destination);
    if (!digest.empty() && digest == entry.sha256) return;
  }
  plan.files.push_back(
      PlannedFile{entry.path, entry.sha256, entry.size, entry.executable, destination, !regular});
  plan.totalBytes += entry.size;
  if (isLauncher(entry.path)) plan.launcherUpdate = true;
}

UpdatePlan buildPlan(const fs::path& root, Manifest manifest) {
  UpdatePlan plan;
  plan.manifest = std::move(manifest);
  for (const ManifestFile& entry : plan.manifest.files) planIfStale(root, entry, plan);
  return plan;
}

std::string millisecondStamp() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const std::int64_t ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
  return std::to_string(ms);
}

bool downgradeBlocked(const fs::path& root, const std::string& version, std::string& error) {
  const std::string installed = readTextFile(root / "data" / "game_version");
  if (installed.empty() || compareVersion(installed, version) <= 0) return false;
  error = "update_downgrade_blocked:" + version;
  return true;
}

bool createWorkFolders(const fs::path& stage, const fs::path& backup, std::string& error) {
  std::error_code failure;
  fs::create_directories(stage, failure);
  fs::create_directories(backup, failure);
  if (failure) return fail(error, "update_workdir_failed");
  return true;
}

// Downloads into the staging folder and checks the digest; `completed` carries the bytes of the
// files verified so far.
bool stageFile(const PlannedFile& file, const std::string& filesUrl, const fs::path& stage,
               const UpdatePlan& plan, const ProgressCallback& progress, std::uint64_t& completed,
               std::string& error) {
  std::uint64_t fileDone = 0;
  auto sink = [&](size_t done, size_t) {
    fileDone = done;
    if (progress) progress(static_cast<size_t>(completed + done), plan.totalBytes);
  };
  const fs::path staged = stage / file.path;
  if (!httpDownload(joinUrl(filesUrl, file.path), staged, sink, error)) return false;
  if (sha256File(staged) != file.sha256) return fail(error, "download_hash_mismatch:" + file.path);
  // An executable gets its bit while still staged, so it never carries its installed name
  // without it.
  if (file.executable) ::chmod(staged.c_str(), 0755);
  completed += std::max(file.size, fileDone);
  if (progress) progress(std::min(completed, plan.totalBytes), plan.totalBytes);
  return true;
}

bool stageAll(const UpdatePlan& plan, const std::string& server, const fs::path& stage,
              const ProgressCallback& progress, std::string& error) {
  const Manifest& manifest = plan.manifest;
  const std::string filesUrl =
      joinUrl(channelFolderUrl(server, manifest.channel, manifest.platform), "files");
  std::uint64_t completed = 0;
  for (const PlannedFile& file : plan.files) {
    if (!stageFile(file, filesUrl, stage, plan, progress, completed, error)) {
      std::error_code ignored;
      fs::remove_all(stage, ignored);
      return false;
    }
  }
  return true;
}

void rollback(const Journal& journal) {
  std::error_code ignored;
  for (auto entry = journal.rbegin(); entry != journal.rend(); ++entry) {
    const auto& [installed, backup] = *entry;
    fs::remove(installed, ignored);
    if (backup.empty() || !somethingAt(backup)) continue;
    fs::create_directories(installed.parent_path(), ignored);
    fs::rename(backup, installed, ignored);
  }
}

struct InstallPlaces {
  fs::path staged, installed, backup;
};

bool installFile(const PlannedFile& file, InstallPlaces places, Journal& journal,
                 std::string& error) {
  std::error_code failure;
  fs::create_directories(places.installed.parent_path(), failure);
  if (failure) return fail(error, "update_destination_failed:" + file.path);
  if (somethingAt(places.installed)) {
    std::error_code ignored;
    fs::create_directories(places.backup.parent_path(), ignored);
    fs::rename(places.installed, places.backup, failure);
    if (failure) return fail(error, "update_backup_failed:" + file.path);
    journal.emplace_back(places.installed, places.backup);
  }
  fs::rename(places.staged, places.installed, failure);
  if (failure) return fail(error, "update_install_failed:" + file.path);
  // The staged copy had its bit already; this only matters if that chmod failed.
  if (file.executable) ::chmod(places.installed.c_str(), 0755);
  // Asked of the file system even when the old file was just moved there: two applies in the
  // same millisecond share the backup folder.
  if (!somethingAt(places.backup)) journal.emplace_back(std::move(places.installed), fs::path());
  return true;
}

// The launcher is never moved into place here: the running process cannot replace itself, so
// the caller hands the staged copy to the update helper.
bool installAll(const UpdatePlan& plan, const fs::path& root, const fs::path& stage,
                const fs::path& backup, Journal& journal, fs::path* stagedLauncher,
                std::string& error) {
  for (const PlannedFile& file : plan.files) {
    InstallPlaces places{stage / file.path, root / file.path, backup / file.path};
    if (isLauncher(file.path)) {
      if (stagedLauncher != nullptr) *stagedLauncher = std::move(places.staged);
      continue;
    }
    if (!installFile(file, std::move(places), journal, error)) return false;
  }
  return true;
}

}  // namespace

Updater::Updater(std::filesystem::path root) : root(std::move(root)) {}

bool Updater::check(const std::string& channel, UpdatePlan& plan, std::string& error) {
  if (server.empty()) return fail(error, "update_server_not_configured");
  std::string manifestText, signature;
  if (!fetchSignedManifest(channelFolderUrl(server, channel, platformKey()), manifestText,
                           signature, error)) {
    return false;
  }
  // Nothing of the manifest is looked at, not even its channel, before the signature holds.
  const fs::path publicKey = root / "data" / "update_public_key.pem";
  if (!verifySignedManifest(manifestText, signature, publicKey, error)) return false;
  Manifest manifest;
  if (!parseManifest(manifestText, manifest, error)) return false;
  if (manifest.channel != channel || manifest.platform != platformKey()) {
    return fail(error, "manifest_channel_or_platform_mismatch");
  }
  plan = buildPlan(root, std::move(manifest));
  return true;
}

bool Updater::apply(const UpdatePlan& plan, ProgressCallback progress, std::string& error,
                    std::filesystem::path* stagedLauncher) {
  if (downgradeBlocked(root, plan.manifest.version, error)) return false;
  if (plan.files.empty()) return true;
  const std::string stamp = millisecondStamp();
  const fs::path work = root / ".tarnhollow-update";
  const fs::path stage = work / ("stage-" + stamp);
  const fs::path backup = work / ("backup-" + stamp);
  if (!createWorkFolders(stage, backup, error)) return false;
  if (!stageAll(plan, server, stage, progress, error)) return false;
  // Every staged byte on disk before a rename can put it in place of the old file, whose name it
  // takes while the old one sits in the backup folder: a power loss would otherwise leave empty
  // files under the new names. One flush of the file system costs far less than one per file.
  flushFileSystem(stage);
  Journal journal;
  if (!installAll(plan, root, stage, backup, journal, stagedLauncher, error)) {
    rollback(journal);
    return false;
  }
  // Nothing stands between the last rename and the marker: a kill there leaves every file new
  // under the old marker, which no later check repairs (it plans nothing).
  if (!writeTextFile(root / "data" / "game_version", plan.manifest.version + "\n")) {
    rollback(journal);
    return fail(error, "version_marker_write_failed");
  }
  // One flush of the whole file system after the marker: every journaling file system here
  // commits the renames and the marker together (btrfs in one transaction), so a power cut
  // leaves either the old install with the staged files or the new one with its marker.
  flushFileSystem(root);
  // A staged launcher waits for the update helper; otherwise the staging folder is spent.
  // Backups are kept: they are the only copy of the replaced files.
  if (stagedLauncher == nullptr || stagedLauncher->empty()) {
    std::error_code ignored;
    fs::remove_all(stage, ignored);
  }
  return true;
}

}  // namespace th::update
