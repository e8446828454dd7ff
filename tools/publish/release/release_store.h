#pragma once
// The served tree of one channel and platform. ROOT/<channel>/<platform> is a symbolic link to
// one release folder in ROOT/<channel>/.releases/<platform>/, named "<sequence>-<version>",
// which holds manifest.json, manifest.sig and files/. A new release is assembled in a folder of
// its own and made current by renaming a new link over the old one: a player's request sees
// either the old release or the new one, whole, and never a manifest beside another release's
// signature. Older releases stay until pruned.

#include <cstddef>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/publish/release/served_release.h"
#include "update/file_descriptor.h"
#include "update/manifest.h"

namespace th::publish {

// Gives `file`, new in a release, a modification time later than `served`, the file at the same
// place in the served release. Servers derive a file's validators (ETag, Last-Modified) from its
// size and its time in whole seconds, and a file's URL is the same in every release: a changed
// file of the same size written within the same second would pass a cache's revalidation as the
// old one, and the cache would go on serving the old bytes.
void stampNewerThan(const std::filesystem::path& file, const std::filesystem::path& served);

class ReleaseStore {
 public:
  ReleaseStore(const std::filesystem::path& serverRoot, const std::string& channel,
               const std::string& platform);
  // Unless made current, the new release folder and the new link are removed again, and, by the
  // holder of the lock, the folders this store created: a failure leaves the served tree exactly
  // as it was.
  ~ReleaseStore();
  ReleaseStore(const ReleaseStore&) = delete;
  ReleaseStore& operator=(const ReleaseStore&) = delete;

  // Looks at what is served now, creating nothing. A plain folder there (from a server laid out
  // by hand, or by an older version of this tool) is taken over when the release is made
  // current. False, with a problem line, when something else stands there.
  bool inspect(std::vector<std::string>& problems);
  // Creates the releases folder where needed and takes an exclusive lock on its lock file for the
  // store's lifetime: one publisher at a time per channel and platform. While another holds it,
  // waits (saying so on standard error) or, without `wait`, fails with a problem line.
  bool lock(bool wait, std::vector<std::string>& problems);
  // Creates the new release's folder, next in sequence; needs the lock.
  bool create(const std::string& version, std::vector<std::string>& problems);

  // What is served now, as inspect found it.
  const ServedRelease& servedRelease() const { return servedRelease_; }
  // The served release's file at `path`, where its manifest lists one; null otherwise.
  const update::ManifestFile* servedEntry(const std::string& path) const {
    return servedRelease_.entry(path);
  }
  // The version the served manifest names; empty when none can be read.
  const std::string& servedVersion() const { return servedRelease_.version; }
  // The newest finished release folder whose manifest names `version`, and that manifest; false
  // when no such release is kept.
  bool findKept(const std::string& version, std::filesystem::path& folder,
                update::Manifest& manifest) const;
  std::filesystem::path servedFile(const std::string& path) const;

  const std::filesystem::path& served() const { return served_; }  // ROOT/<channel>/<platform>
  const std::filesystem::path& folder() const { return folder_; }  // the new release's folder

  // Flushes the new release to disk, then swaps the link in, in one rename.
  bool makeCurrent(std::vector<std::string>& problems);
  // Removes finished releases older than the newest `keep` ones up to the current one, and
  // folders that killed runs left unfinished; the versions removed, newest first.
  std::vector<std::string> prune(std::size_t keep);
  // The versions of the finished releases kept, newest first.
  std::vector<std::string> keptVersions() const;

 private:
  bool createReleasesFolder(std::vector<std::string>& problems);
  std::filesystem::path lockPath() const { return releases_ / ".lock"; }
  bool takeLock(int file, bool wait, std::vector<std::string>& problems);
  std::size_t nextSequence() const;
  bool swapLinkIn(std::vector<std::string>& problems);

  std::filesystem::path channel_, served_, releases_, folder_, link_;
  bool takeOver_ = false;
  std::string takenOverName_;
  ServedRelease servedRelease_;
  std::vector<std::filesystem::path> created_;
  bool current_ = false;
  std::optional<update::FileDescriptor> lock_;  // released last, after the clean-up
};

}  // namespace th::publish
