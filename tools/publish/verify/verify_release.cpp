#include "tools/publish/verify/verify_release.h"

#include <stdlib.h>

#include <ctime>
#include <filesystem>
#include <system_error>

#include "tools/publish/keys/signing_key.h"
#include "tools/publish/progress.h"
#include "tools/publish/release/player_reach.h"
#include "tools/publish/release/transfer_limit.h"
#include "tools/publish/verify/cache_headers.h"
#include "tools/publish/verify/served_headers.h"
#include "update/http.h"
#include "update/manifest.h"
#include "update/signature.h"
#include "update/text_file.h"

namespace th::publish {
namespace fs = std::filesystem;
namespace {

using Problems = std::vector<std::string>;

// A private folder for the key and one downloaded file at a time, removed at scope end.
class ScratchFolder {
 public:
  ScratchFolder() {
    std::error_code error;
    std::string pattern = (fs::temp_directory_path(error) / "tarn-hollow-verify-XXXXXX").string();
    if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~ScratchFolder() {
    std::error_code ignored;
    if (!path_.empty()) fs::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

bool publicKeyFile(const VerifyOptions& options, const fs::path& scratch, fs::path& key,
                   Problems& problems) {
  std::string pem;
  if (!pinnedPublicKey(options.publicKey, pem, problems)) return false;
  key = scratch / "update_public_key.pem";
  if (!update::writeTextFile(key, pem)) problems.push_back(key.string() + ": cannot be written");
  return problems.empty();
}

// Notes a response that a shared cache in front of the server may serve stale.
void noteCaching(const std::string& name, const std::string& url,
                 std::vector<std::string>& warnings) {
  ResponseHeaders headers;
  std::string error;
  if (!fetchResponseHeaders(url, headers, error)) {
    warnings.push_back(name + ": its headers cannot be fetched: " + withHttpStatus(url, error));
    return;
  }
  if (const std::string why = staleCaching(headers, std::time(nullptr)); !why.empty()) {
    warnings.push_back(name + ": " + why);
  }
}

bool fetchManifest(const VerifyOptions& options, const std::string& folderUrl, const fs::path& key,
                   update::Manifest& manifest, VerifySummary& summary, Problems& problems) {
  std::string text, signature, error;
  const std::string textUrl = update::joinUrl(folderUrl, "manifest.json");
  const std::string signatureUrl = update::joinUrl(folderUrl, "manifest.sig");
  for (const auto& [url, body] : {std::pair{textUrl, &text}, std::pair{signatureUrl, &signature}}) {
    if (!update::httpGet(url, *body, error)) {
      problems.push_back("the manifest cannot be fetched: " + withHttpStatus(url, error));
      return false;
    }
  }
  noteCaching("manifest.json", textUrl, summary.warnings);
  noteCaching("manifest.sig", signatureUrl, summary.warnings);
  trimSignatureEnd(signature);
  if (!update::verifySignedManifest(text, signature, key, error) ||
      !update::parseManifest(text, manifest, error)) {
    problems.push_back("the manifest is refused: " + error);
    return false;
  }
  if (manifest.channel != options.channel || manifest.platform != options.platform) {
    problems.push_back("the manifest is for " + manifest.channel + "/" + manifest.platform);
    return false;
  }
  return true;
}

// Empty when the served file matches its entry; otherwise what is wrong with it.
std::string checkFile(const std::string& filesUrl, const update::ManifestFile& file,
                      const fs::path& scratch, std::vector<std::string>& warnings) {
  const fs::path download = scratch / "download";
  std::string error;
  const std::string url = update::joinUrl(filesUrl, file.path);
  if (!update::httpDownload(url, download, {}, error)) {
    return "cannot be downloaded: " + withHttpStatus(url, error);
  }
  noteCaching(file.path, url, warnings);
  const std::string digest = update::sha256File(download);
  std::error_code sizeError;
  const std::uint64_t size = fs::file_size(download, sizeError);
  fs::remove(download, sizeError);
  if (digest != file.sha256) return "SHA-256 " + digest + ", the manifest says " + file.sha256;
  if (size != file.size) {
    return std::to_string(size) + " bytes, the manifest says " + std::to_string(file.size);
  }
  return {};
}

}  // namespace

bool checkPublicKeyOption(const VerifyOptions& options, Problems& problems) {
  std::string pem;
  return options.publicKey.empty() || pinnedPublicKey(options.publicKey, pem, problems);
}

bool fetchServedRelease(const VerifyOptions& options, update::Manifest& manifest,
                        Problems& problems) {
  VerifySummary summary;
  summary.folderUrl =
      update::joinUrl(update::joinUrl(options.url, options.channel), options.platform);
  const ScratchFolder scratch;
  fs::path key;
  if (scratch.path().empty()) {
    problems.push_back("no temporary folder for the key");
    return false;
  }
  return publicKeyFile(options, scratch.path(), key, problems) &&
         fetchManifest(options, summary.folderUrl, key, manifest, summary, problems);
}

bool verifyRelease(const VerifyOptions& options, VerifySummary& summary, Problems& problems) {
  summary.folderUrl =
      update::joinUrl(update::joinUrl(options.url, options.channel), options.platform);
  const ScratchFolder scratch;
  fs::path key;
  update::Manifest manifest;
  if (scratch.path().empty()) {
    problems.push_back("no temporary folder for the downloads");
    return false;
  }
  if (!publicKeyFile(options, scratch.path(), key, problems) ||
      !fetchManifest(options, summary.folderUrl, key, manifest, summary, problems)) {
    return false;
  }
  summary.version = manifest.version;
  if (const std::string lockOut =
          lockedOutByMinimum(manifest.version, manifest.minimumOnlineVersion);
      !lockOut.empty()) {
    summary.warnings.push_back("manifest.json: " + lockOut);
  }
  const Problems tooLarge = overTransferLimit(manifest.files, options.slowestLinkMbit);
  summary.warnings.insert(summary.warnings.end(), tooLarge.begin(), tooLarge.end());
  for (const update::ManifestFile& file : manifest.files) summary.bytes += file.size;
  HashProgress progress(stderr, manifest.files.size(), summary.bytes, "checking");
  const std::string filesUrl = update::joinUrl(summary.folderUrl, "files");
  for (const update::ManifestFile& file : manifest.files) {
    if (const std::string problem = checkFile(filesUrl, file, scratch.path(), summary.warnings);
        !problem.empty()) {
      problems.push_back(file.path + ": " + problem);
    }
    progress.fileDone(file.size);
  }
  summary.files = manifest.files.size();
  if (options.strict) {
    problems.insert(problems.end(), summary.warnings.begin(), summary.warnings.end());
    summary.warnings.clear();
  }
  return problems.empty();
}

}  // namespace th::publish
