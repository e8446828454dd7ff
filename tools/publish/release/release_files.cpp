#include "tools/publish/release/release_files.h"

#include <map>
#include <optional>
#include <system_error>

#include "tools/publish/progress.h"
#include "update/platform.h"
#include "update/signature.h"

namespace th::publish {
namespace fs = std::filesystem;
namespace {

using Problems = std::vector<std::string>;

// Hard-links the served release's copy when the opened file has the same size and digest: a
// one-file patch of a large game costs one file's copy, not the game's. The link is hashed
// again, so that a served file damaged on disk is copied afresh, not carried into every later
// release.
bool linkUnchanged(const ReleaseFile& file, const OpenedFile& opened, const ReleaseStore& store,
                   const fs::path& place, update::ManifestFile& entry) {
  const update::ManifestFile* served = store.servedEntry(file.path);
  if (served == nullptr || served->size != opened.size) return false;
  const fs::path servedFile = store.servedFile(file.path);
  std::error_code error;
  if (!fs::is_regular_file(fs::symlink_status(servedFile, error))) return false;
  if (fs::file_size(servedFile, error) != served->size || error) return false;
  std::string digest, problem;
  std::uint64_t size = 0;
  if (!streamReleaseFile(opened, {}, digest, size, problem) || digest != served->sha256 ||
      size != served->size) {
    return false;
  }
  fs::create_hard_link(servedFile, place, error);
  if (error) return false;
  if (update::sha256File(place) != digest) {
    fs::remove(place, error);
    return false;
  }
  entry = {file.path, served->sha256, served->size, opened.executable};
  return true;
}

// Copies the opened file into the new release, hashing the bytes as they are copied: what is
// published is exactly what was hashed, even if the release folder changes meanwhile.
bool copyChanged(const ReleaseFile& file, const OpenedFile& opened, const ReleaseStore* store,
                 const fs::path& place, update::ManifestFile& entry, Problems& problems) {
  std::string digest, problem;
  std::uint64_t size = 0;
  if (!streamReleaseFile(opened, place, digest, size, problem)) {
    problems.push_back(file.path + ": " + problem);
    return false;
  }
  if (store != nullptr) stampNewerThan(place, store->servedFile(file.path));
  entry = {file.path, digest, size, opened.executable};
  return true;
}

}  // namespace

void fillRelease(const ReleaseTree& tree, const std::vector<ReleaseFile>& files,
                 const fs::path& folder, const ReleaseStore* store, update::Manifest& manifest,
                 std::size_t& linked, Problems& problems) {
  std::uint64_t total = 0;
  for (const ReleaseFile& file : files) total += file.size;
  HashProgress progress(stderr, files.size(), total);
  for (const ReleaseFile& file : files) {
    const fs::path place = folder / "files" / file.path;
    std::error_code error;
    fs::create_directories(place.parent_path(), error);
    std::optional<OpenedFile> opened;
    std::string problem;
    update::ManifestFile entry;
    if (!tree.openFile(file.source, opened, problem)) {
      problems.push_back(file.path + ": " + problem);
      continue;
    }
    if (store != nullptr && linkUnchanged(file, *opened, *store, place, entry)) {
      ++linked;
    } else if (!copyChanged(file, *opened, store, place, entry, problems)) {
      continue;
    }
    manifest.files.push_back(entry);
    progress.fileDone(entry.size);
  }
}

std::vector<update::ManifestFile> sizesOf(const std::vector<ReleaseFile>& files) {
  std::vector<update::ManifestFile> sized;
  for (const ReleaseFile& file : files) sized.push_back({file.path, {}, file.size, false});
  return sized;
}

update::Manifest manifestHeader(const ReleaseOptions& options, const std::string& notes) {
  update::Manifest manifest;
  manifest.product = update::gameBinaryName();
  manifest.channel = options.channel;
  manifest.platform = options.platform;
  manifest.version = options.version;
  manifest.protocolVersion = std::stoi(options.protocolVersion);
  manifest.minimumOnlineVersion = options.minimumOnlineVersion;
  manifest.mandatory = options.mandatory;
  manifest.releaseNotes = notes;
  return manifest;
}

void matchListedFiles(const update::Manifest& listing, const std::string& lister,
                      update::Manifest& manifest, std::vector<std::string>& problems) {
  std::map<std::string, const update::ManifestFile*> listed;
  for (const update::ManifestFile& file : listing.files) listed.emplace(file.path, &file);
  for (update::ManifestFile& file : manifest.files) {
    const auto found = listed.find(file.path);
    if (found == listed.end()) {
      problems.push_back(file.path + ": not listed by " + lister);
      continue;
    }
    if (found->second->sha256 != file.sha256 || found->second->size != file.size) {
      problems.push_back(file.path + ": not as " + lister + " lists it");
    }
    file.executable = found->second->executable;
    listed.erase(found);  // present, whole or not: not also "missing"
  }
  for (const auto& [path, file] : listed) {
    problems.push_back(path + ": listed by " + lister + " but missing from its folder");
  }
}

}  // namespace th::publish
