#include "tools/publish/release/publish_release.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <iterator>
#include <system_error>

#include "tools/publish/keys/keys.h"
#include "tools/publish/keys/signer.h"
#include "tools/publish/progress.h"
#include "tools/publish/release/guard_rails.h"
#include "tools/publish/release/manifest_json.h"
#include "tools/publish/release/package_launcher.h"
#include "tools/publish/release/player_reach.h"
#include "tools/publish/release/release_copy.h"
#include "tools/publish/release/release_scan.h"
#include "tools/publish/release/release_store.h"
#include "tools/publish/release/revert_release.h"
#include "tools/publish/release/transfer_limit.h"
#include "update/manifest.h"
#include "update/pinned_key.h"
#include "update/platform.h"
#include "update/signature.h"
#include "update/text_file.h"

namespace th::publish {
namespace fs = std::filesystem;
namespace {

using Problems = std::vector<std::string>;

// Read before the lock is waited for, so that a package that cannot be read is refused at once.
std::string readPackagedLauncher(const ReleaseOptions& options, Problems& problems) {
  std::string digest, error;
  if (!options.package.empty() && !packagedLauncherDigest(options.package, digest, error)) {
    problems.push_back(error);
  }
  return digest;
}

std::vector<update::ManifestFile> sizesOf(const std::vector<ReleaseFile>& files) {
  std::vector<update::ManifestFile> sized;
  for (const ReleaseFile& file : files) sized.push_back({file.path, {}, file.size, false});
  return sized;
}

using SigningKey = std::unique_ptr<Signer>;

// The key must sign, and its public half must be the key that this build's engine pins, or the
// launchers built alongside would refuse every release signed with it.
void checkKey(const SigningKeyOptions& options, SigningKey& signing, Problems& problems,
              Problems& warnings) {
  signing = openSigner(options, problems, warnings);
  if (!signing) return;
  std::string error, probe;
  if (!signing->sign("probe", probe, error)) {
    problems.push_back(signing->name() +
                       ": this key cannot make SHA-256 signatures (use EC or RSA)");
    return;
  }
  // A token may hold another pair's public key under the label: its signatures would verify
  // nowhere.
  if (!verifiesSha256(signing->publicPem(), "probe", probe)) {
    problems.push_back(signing->name() + ": its signatures do not verify with its public key");
  }
  const std::string fingerprint = update::sha256Bytes(signing->publicPem());
  if (fingerprint != update::pinnedKeyFingerprint()) {
    problems.push_back(signing->name() + ": its public key has fingerprint " + fingerprint +
                       ", but this build pins " + std::string(update::pinnedKeyFingerprint()) +
                       " (build with -DTH_UPDATE_KEY_FINGERPRINT=" + fingerprint + ")");
  }
}

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
bool copyChanged(const ReleaseFile& file, const OpenedFile& opened, const ReleaseStore& store,
                 const fs::path& place, update::ManifestFile& entry, Problems& problems) {
  std::string digest, problem;
  std::uint64_t size = 0;
  if (!streamReleaseFile(opened, place, digest, size, problem)) {
    problems.push_back(file.path + ": " + problem);
    return false;
  }
  stampNewerThan(place, store.servedFile(file.path));
  entry = {file.path, digest, size, opened.executable};
  return true;
}

void fillRelease(const ReleaseTree& tree, const std::vector<ReleaseFile>& files,
                 const ReleaseStore& store, update::Manifest& manifest, std::size_t& linked,
                 Problems& problems) {
  std::uint64_t total = 0;
  for (const ReleaseFile& file : files) total += file.size;
  HashProgress progress(stderr, files.size(), total);
  for (const ReleaseFile& file : files) {
    const fs::path place = store.folder() / "files" / file.path;
    std::error_code error;
    fs::create_directories(place.parent_path(), error);
    std::optional<OpenedFile> opened;
    std::string problem;
    update::ManifestFile entry;
    if (!tree.openFile(file.source, opened, problem)) {
      problems.push_back(file.path + ": " + problem);
      continue;
    }
    if (linkUnchanged(file, *opened, store, place, entry)) {
      ++linked;
    } else if (!copyChanged(file, *opened, store, place, entry, problems)) {
      continue;
    }
    manifest.files.push_back(entry);
    progress.fileDone(entry.size);
  }
}

bool writeManifest(const ReleaseStore& store, const std::string& json, const std::string& signature,
                   Problems& problems) {
  const fs::path& folder = store.folder();
  if (update::writeTextFile(folder / "manifest.json", json) &&
      update::writeTextFile(folder / "manifest.sig", signature)) {
    stampNewerThan(folder / "manifest.json", store.served() / "manifest.json");
    stampNewerThan(folder / "manifest.sig", store.served() / "manifest.sig");
    return true;
  }
  problems.push_back(folder.string() + ": cannot write the manifest");
  return false;
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

// Reads the signed manifest back the way every launcher will, before anyone can fetch it. The
// key file it needs is removed again, so it is never served.
void selfCheck(const std::string& json, const std::string& signature, const SigningKey& signing,
               const fs::path& folder, const update::Manifest& intended, Problems& problems) {
  const fs::path publicKey = folder / "update_public_key.pem";
  std::string error;
  update::Manifest parsed;
  const bool written = update::writeTextFile(publicKey, signing->publicPem());
  const bool verified = written && update::verifySignedManifest(json, signature, publicKey, error);
  std::error_code ignored;
  fs::remove(publicKey, ignored);
  if (!written) {
    problems.push_back(publicKey.string() + ": cannot be written");
  } else if (!verified) {
    problems.push_back("the signed manifest does not verify: " + error);
  } else if (!update::parseManifest(json, parsed, error)) {
    problems.push_back("the launcher cannot read the manifest: " + error);
  } else if (const std::string field = firstDifference(intended, parsed); !field.empty()) {
    problems.push_back("the launcher would misread the manifest's " + field);
  }
}

// Signs the manifest, checks it as launchers will read it, and makes the release current.
bool signAndSwapIn(const SigningKey& signing, ReleaseStore& store, const update::Manifest& manifest,
                   Problems& problems) {
  const std::string json = manifestJson(manifest);
  std::string signature, error;
  if (!signing->sign(json, signature, error)) {
    problems.push_back(signing->name() + ": signing failed: " + error);
    return false;
  }
  selfCheck(json, signature, signing, store.folder(), manifest, problems);
  return problems.empty() && writeManifest(store, json, signature, problems) &&
         store.makeCurrent(problems);
}

}  // namespace

bool publishRelease(const ReleaseOptions& given, PublishSummary& summary, Problems& problems) {
  ReleaseOptions options = given;
  ReleaseStore store(options.serverRoot, options.channel, options.platform);
  update::Manifest kept;
  const bool reverting = !options.revertTo.empty();
  if (reverting && !findKeptRelease(store, options, kept, problems)) return false;
  std::string notes;
  SigningKey signing;
  std::vector<ReleaseFile> files;
  Problems entries;  // named after the options' problems
  const ReleaseTree tree(options.from);
  scanRelease(tree.path(), files, entries);
  readNotes(options, notes, problems);
  if (reverting) notes = revertNotes(options, options.notes.empty() ? kept.releaseNotes : notes);
  judgeRelease(options, notes, sizesOf(files), problems, summary.warnings);
  checkKey(options.key, signing, problems, summary.warnings);
  const std::string packagedLauncher = readPackagedLauncher(options, problems);
  problems.insert(problems.end(), entries.begin(), entries.end());
  if (!problems.empty() || !store.lock(options.wait, problems) || !store.inspect(problems)) {
    return false;
  }
  checkAboveServed(options, store.servedRelease(), problems);
  if (!problems.empty() || !store.create(options.version, problems)) return false;
  update::Manifest manifest = manifestHeader(options, notes);
  fillRelease(tree, files, store, manifest, summary.linked, problems);
  if (reverting) {
    matchKeptRelease(options, kept, manifest, problems);
    addRevertNotes(options, notes, store, manifest, problems);
  }
  warnNothingToInstall(manifest, store.servedRelease(), summary.warnings);
  warnPackagedLauncher(manifest, options.package, packagedLauncher, summary.warnings);
  if (!problems.empty() || !signAndSwapIn(signing, store, manifest, problems)) {
    return false;
  }
  warnFlagOnlyChanges(manifest, store.servedRelease(), summary.warnings);
  summary.pruned = store.prune(std::stoul(options.keep));
  summary.channelFolder = store.served();
  summary.files = manifest.files.size();
  for (const auto& file : manifest.files) summary.bytes += file.size;
  return true;
}

}  // namespace th::publish
