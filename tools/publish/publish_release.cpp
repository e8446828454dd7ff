#include "tools/publish/publish_release.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <system_error>

#include "tools/publish/keys.h"
#include "tools/publish/manifest_json.h"
#include "tools/publish/progress.h"
#include "tools/publish/release_scan.h"
#include "update/manifest.h"
#include "update/pinned_key.h"
#include "update/platform.h"
#include "update/signature.h"
#include "update/text_file.h"

namespace th::publish {
namespace fs = std::filesystem;
namespace {

using Problems = std::vector<std::string>;

bool smallNumber(std::string_view digits) {
  int value = 0;
  const auto [end, result] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return !digits.empty() && result == std::errc() && end == digits.data() + digits.size() &&
         std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Digits separated by single dots, each part small enough that the launcher orders it right.
bool dottedNumber(std::string_view text) {
  for (size_t start = 0;;) {
    const size_t dot = text.find('.', start);
    if (!smallNumber(text.substr(start, dot - start))) return false;
    if (dot == std::string_view::npos) return true;
    start = dot + 1;
  }
}

// Channel and platform become folder names on the server and parts of the launcher's URLs.
bool plainName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         std::all_of(name.begin(), name.end(), [](char c) {
           return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '_' || c == '-';
         });
}

bool serverRootInsideRelease(const ReleaseOptions& options) {
  std::error_code error;
  const fs::path root = fs::weakly_canonical(options.serverRoot, error);
  const fs::path release = fs::weakly_canonical(options.from, error);
  return isWithin(root, release);
}

void checkValues(const ReleaseOptions& options, std::string& notes, Problems& problems) {
  if (!dottedNumber(options.version)) {
    problems.push_back("--version '" + options.version + "' is not a dotted number like 1.4.2");
  }
  if (!options.minimumOnlineVersion.empty() && !dottedNumber(options.minimumOnlineVersion)) {
    problems.push_back("--minimum-online-version '" + options.minimumOnlineVersion +
                       "' is not a dotted number like 1.4.0");
  }
  if (!smallNumber(options.protocolVersion)) {
    problems.push_back("--protocol-version '" + options.protocolVersion +
                       "' is not a whole number from 0 to 2147483647");
  }
  for (const auto& [option, name] :
       {std::pair{"--channel", options.channel}, std::pair{"--platform", options.platform}}) {
    if (!plainName(name)) {
      problems.push_back(std::string(option) + " '" + name +
                         "' must be letters, digits, '.', '_' or '-'");
    }
  }
  if (!options.notes.empty()) {
    std::error_code error;
    notes = update::readTextFile(options.notes);
    if (!fs::is_regular_file(options.notes, error)) {
      problems.push_back(options.notes.string() + ": release notes file cannot be read");
    } else if (needsUnicodeEscape(notes)) {
      problems.push_back(options.notes.string() +
                         ": release notes hold a control character other than tab or line end,"
                         " which the launcher cannot read");
    }
  }
  if (serverRootInsideRelease(options)) {
    problems.push_back(options.serverRoot.string() + ": the server root lies inside the release");
  }
}

struct SigningKey {
  PrivateKey key;
  std::string publicPem;
};

// The key must sign, and its public half must be the key that this build's engine pins, or the
// launchers built alongside would refuse every release signed with it.
void checkKey(const fs::path& file, SigningKey& signing, Problems& problems) {
  std::string error, probe;
  if (!loadPrivateKey(file, signing.key, error) ||
      !publicKeyPem(signing.key.get(), signing.publicPem, error)) {
    problems.push_back(file.string() + ": not an unencrypted PEM private key");
    return;
  }
  if (!signSha256(signing.key.get(), "probe", probe, error)) {
    problems.push_back(file.string() + ": this key cannot make SHA-256 signatures (use EC or RSA)");
    return;
  }
  const std::string fingerprint = update::sha256Bytes(signing.publicPem);
  if (fingerprint != update::pinnedKeyFingerprint()) {
    problems.push_back(file.string() + ": its public key has fingerprint " + fingerprint +
                       ", but this build pins " + std::string(update::pinnedKeyFingerprint()) +
                       " (build with -DTH_UPDATE_KEY_FINGERPRINT=" + fingerprint + ")");
  }
}

// Copies the release into the staging folder and describes the copies: what is published is
// exactly what was hashed, even if the release folder changes meanwhile.
void stageFiles(const std::vector<ReleaseFile>& files, const fs::path& stage,
                update::Manifest& manifest, Problems& problems) {
  std::uint64_t total = 0;
  for (const ReleaseFile& file : files) total += file.size;
  HashProgress progress(stderr, files.size(), total);
  for (const ReleaseFile& file : files) {
    const fs::path copy = stage / "files" / file.path;
    std::error_code error;
    fs::create_directories(copy.parent_path(), error);
    fs::copy_file(file.source, copy, fs::copy_options::overwrite_existing, error);
    const std::string digest = error ? std::string() : update::sha256File(copy);
    const std::uint64_t size = fs::file_size(copy, error);
    if (digest.empty() || error) {
      problems.push_back(file.path + ": cannot be read" + (error ? ": " + error.message() : ""));
      continue;
    }
    manifest.files.push_back({file.path, digest, size, file.executable});
    progress.fileDone(size);
  }
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

// Reads the signed manifest back the way every launcher will, before anyone can fetch it.
void selfCheck(const std::string& json, const std::string& signature, const SigningKey& signing,
               const fs::path& stage, const update::Manifest& intended, Problems& problems) {
  const fs::path publicKey = stage / "update_public_key.pem";
  std::string error;
  update::Manifest parsed;
  if (!update::writeTextFile(publicKey, signing.publicPem)) {
    problems.push_back(publicKey.string() + ": cannot be written");
  } else if (!update::verifySignedManifest(json, signature, publicKey, error)) {
    problems.push_back("the signed manifest does not verify: " + error);
  } else if (!update::parseManifest(json, parsed, error)) {
    problems.push_back("the launcher cannot read the manifest: " + error);
  } else if (const std::string field = firstDifference(intended, parsed); !field.empty()) {
    problems.push_back("the launcher would misread the manifest's " + field);
  }
}

bool moveIntoPlace(const fs::path& from, const fs::path& to, Problems& problems) {
  std::error_code error;
  fs::create_directories(to.parent_path(), error);
  fs::rename(from, to, error);
  if (error) problems.push_back(to.string() + ": cannot be published: " + error.message());
  return !error;
}

// The files go first; the manifest and then its signature last, so that a launcher never sees
// a manifest whose files are not there yet.
bool publishStaged(const fs::path& stage, const fs::path& channel, const update::Manifest& m,
                   const std::string& json, const std::string& signature, Problems& problems) {
  for (const update::ManifestFile& file : m.files) {
    if (!moveIntoPlace(stage / "files" / file.path, channel / "files" / file.path, problems)) {
      return false;
    }
  }
  if (!update::writeTextFile(stage / "manifest.json", json) ||
      !update::writeTextFile(stage / "manifest.sig", signature)) {
    problems.push_back(stage.string() + ": cannot write the manifest");
    return false;
  }
  return moveIntoPlace(stage / "manifest.json", channel / "manifest.json", problems) &&
         moveIntoPlace(stage / "manifest.sig", channel / "manifest.sig", problems);
}

// Removes the staging folder, and on failure the folders that publishing created, so that a
// refused release leaves the server tree as it was.
class StagingArea {
 public:
  explicit StagingArea(const fs::path& channel)
      : path_(channel / (".publish-" + std::to_string(getpid()))) {
    std::error_code error;
    for (fs::path folder = channel; !folder.empty() && !fs::exists(folder, error);
         folder = folder.parent_path()) {
      created_.push_back(folder);
      if (folder == folder.parent_path()) break;
    }
    fs::remove_all(path_, error);
  }
  ~StagingArea() {
    std::error_code error;
    fs::remove_all(path_, error);
    if (succeeded_) return;
    for (const fs::path& folder : created_) fs::remove(folder, error);  // only while empty
  }
  const fs::path& path() const { return path_; }
  void succeeded() { succeeded_ = true; }

 private:
  fs::path path_;
  std::vector<fs::path> created_;
  bool succeeded_ = false;
};

}  // namespace

bool publishRelease(const ReleaseOptions& options, PublishSummary& summary, Problems& problems) {
  std::string notes;
  SigningKey signing;
  std::vector<ReleaseFile> files;
  checkValues(options, notes, problems);
  checkKey(options.key, signing, problems);
  scanRelease(options.from, files, problems);
  if (!problems.empty()) return false;

  const fs::path channel = options.serverRoot / options.channel / options.platform;
  StagingArea stage(channel);
  update::Manifest manifest = manifestHeader(options, notes);
  stageFiles(files, stage.path(), manifest, problems);
  if (!problems.empty()) return false;
  const std::string json = manifestJson(manifest);
  std::string signature, error;
  if (!signSha256(signing.key.get(), json, signature, error)) {
    problems.push_back(options.key.string() + ": signing failed: " + error);
    return false;
  }
  selfCheck(json, signature, signing, stage.path(), manifest, problems);
  if (!problems.empty()) return false;
  if (!publishStaged(stage.path(), channel, manifest, json, signature, problems)) return false;
  stage.succeeded();
  summary.channelFolder = channel;
  summary.files = manifest.files.size();
  for (const auto& file : manifest.files) summary.bytes += file.size;
  return true;
}

}  // namespace th::publish
