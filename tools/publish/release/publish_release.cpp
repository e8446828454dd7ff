#include "tools/publish/release/publish_release.h"

#include <algorithm>
#include <system_error>

#include "tools/publish/keys/signing_key.h"
#include "tools/publish/release/guard_rails.h"
#include "tools/publish/release/manifest_json.h"
#include "tools/publish/release/player_reach.h"
#include "tools/publish/release/release_files.h"
#include "tools/publish/release/release_scan.h"
#include "tools/publish/release/release_store.h"
#include "tools/publish/release/revert_release.h"
#include "tools/publish/release/sign_release.h"
#include "update/manifest.h"
#include "update/signature.h"
#include "update/text_file.h"

namespace th::publish {
namespace fs = std::filesystem;
namespace {

using Problems = std::vector<std::string>;

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

// Signs the manifest, checks it as launchers will read it, and makes the release current.
bool signAndSwapIn(const SigningKey& signing, ReleaseStore& store, const update::Manifest& manifest,
                   Problems& problems) {
  const std::string json = manifestJson(manifest);
  std::string signature, error;
  if (!signing->sign(json, signature, error)) {
    problems.push_back(signing->name() + ": signing failed: " + error);
    return false;
  }
  checkAsLaunchersRead(json, signature, signing->publicPem(), store.folder(), manifest, problems);
  return problems.empty() && writeManifest(store, json, signature, problems) &&
         store.makeCurrent(problems);
}

// A prepared release as it arrived where it is published: its signature must verify against
// the pinned key, and it fills in what `release` takes from the command line.
struct SignedRelease {
  PreparedManifest prepared;
  std::string signature, publicPem;
};

bool readSignedRelease(ReleaseOptions& options, SignedRelease& release, Problems& problems) {
  const fs::path file = options.prepared / "manifest.sig";
  std::error_code error;
  if (!readPreparedManifest(options.prepared, release.prepared, problems)) return false;
  if (!fs::is_regular_file(file, error)) {
    problems.push_back(file.string() + ": not signed yet (run sign where the key is)");
    return false;
  }
  release.signature = update::readTextFile(file);
  trimSignatureEnd(release.signature);
  if (!pinnedPublicKey(options.publicKey, release.publicPem, problems)) return false;
  checkAsLaunchersRead(release.prepared.json, release.signature, release.publicPem,
                       options.prepared, release.prepared.manifest, problems);
  const update::Manifest& signedManifest = release.prepared.manifest;
  options.version = signedManifest.version;
  options.channel = signedManifest.channel;
  options.platform = signedManifest.platform;
  options.minimumOnlineVersion = signedManifest.minimumOnlineVersion;
  options.protocolVersion = std::to_string(signedManifest.protocolVersion);
  options.mandatory = signedManifest.mandatory;
  options.from = options.prepared / "files";
  return problems.empty();
}

// Serves the signed manifest exactly as it was signed and read back when the run began.
bool swapInSigned(const SignedRelease& release, ReleaseStore& store, Problems& problems) {
  return writeManifest(store, release.prepared.json, release.signature, problems) &&
         store.makeCurrent(problems);
}

}  // namespace

bool publishRelease(const ReleaseOptions& given, PublishSummary& summary, Problems& problems) {
  ReleaseOptions options = given;
  SignedRelease prepared;  // publish: what was prepared and signed elsewhere
  const bool fromPrepared = !options.prepared.empty();
  if (fromPrepared && !readSignedRelease(options, prepared, problems)) return false;
  ReleaseStore store(options.serverRoot, options.channel, options.platform);
  update::Manifest kept;
  const bool reverting = !options.revertTo.empty();
  if (reverting && !findKeptRelease(store, options, kept, problems)) return false;
  std::string notes = prepared.prepared.manifest.releaseNotes;
  SigningKey signing;
  std::vector<ReleaseFile> files;
  Problems entries;  // named after the options' problems
  const ReleaseTree tree(options.from);
  scanRelease(tree.path(), files, entries);
  readNotes(options, notes, problems);
  if (reverting) notes = revertNotes(options, options.notes.empty() ? kept.releaseNotes : notes);
  judgeRelease(options, notes, sizesOf(files), problems, summary.warnings);
  if (!fromPrepared) checkKey(options.key, signing, problems, summary.warnings);
  const std::string packagedLauncher = readPackagedLauncher(options, problems);
  problems.insert(problems.end(), entries.begin(), entries.end());
  if (!problems.empty() || !store.lock(options.wait, problems) || !store.inspect(problems)) {
    return false;
  }
  checkAboveServed(options, store.servedRelease(), problems);
  if (!problems.empty() || !store.create(options.version, problems)) return false;
  update::Manifest manifest = manifestHeader(options, notes);
  fillRelease(tree, files, store.folder(), &store, manifest, summary.linked, problems);
  if (reverting) {
    matchListedFiles(kept, "the manifest of the kept release " + options.revertTo, manifest,
                     problems);
    addRevertNotes(options, notes, store, manifest, problems);
  }
  if (fromPrepared) {
    matchListedFiles(prepared.prepared.manifest, "the signed manifest", manifest, problems);
  }
  warnNothingToInstall(manifest, store.servedRelease(), summary.warnings);
  warnPackagedLauncher(manifest, options.package, packagedLauncher, summary.warnings);
  const bool live =
      problems.empty() && (fromPrepared ? swapInSigned(prepared, store, problems)
                                        : signAndSwapIn(signing, store, manifest, problems));
  if (!live) return false;
  warnFlagOnlyChanges(manifest, store.servedRelease(), summary.warnings);
  summary.pruned = store.prune(std::stoul(options.keep));
  summary.version = options.version;
  summary.channel = options.channel;
  summary.platform = options.platform;
  summary.channelFolder = store.served();
  summary.files = manifest.files.size();
  for (const auto& file : manifest.files) summary.bytes += file.size;
  return true;
}

}  // namespace th::publish
