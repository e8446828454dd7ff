#include "tools/publish/keys/signing_key.h"

#include <cstdio>
#include <string_view>
#include <system_error>

#include "tools/publish/build_variant.h"
#include "tools/publish/keys/keys.h"
#include "tools/publish/release/manifest_json.h"
#include "update/manifest.h"
#include "update/pinned_key.h"
#include "update/signature.h"
#include "update/text_file.h"

namespace th::publish {
namespace fs = std::filesystem;

using Problems = std::vector<std::string>;

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

// Reads the signed manifest back the way every launcher will, before anyone can fetch it. The
// key file it needs is removed again, so it is never served.
void trimSignatureEnd(std::string& signature) {
  while (!signature.empty() &&
         std::string_view(" \t\r\n").find(signature.back()) != std::string_view::npos) {
    signature.pop_back();
  }
}

bool readsAsIntended(const std::string& json, const update::Manifest& intended,
                     Problems& problems) {
  update::Manifest parsed;
  std::string error;
  if (!update::parseManifest(json, parsed, error)) {
    problems.push_back("the launcher cannot read the manifest: " + error);
    return false;
  }
  const std::string field = firstDifference(intended, parsed);
  if (!field.empty()) problems.push_back("the launcher would misread the manifest's " + field);
  return field.empty();
}

void checkAsLaunchersRead(const std::string& json, const std::string& signature,
                          const std::string& publicPem, const fs::path& folder,
                          const update::Manifest& intended, Problems& problems) {
  const fs::path publicKey = folder / "update_public_key.pem";
  std::string error;
  const bool written = update::writeTextFile(publicKey, publicPem);
  const bool verified = written && update::verifySignedManifest(json, signature, publicKey, error);
  std::error_code ignored;
  fs::remove(publicKey, ignored);
  if (!written) {
    problems.push_back(publicKey.string() + ": cannot be written");
  } else if (!verified) {
    problems.push_back("the signed manifest does not verify: " + error);
  } else {
    readsAsIntended(json, intended, problems);
  }
}

bool pinnedPublicKey(const fs::path& given, std::string& pem, Problems& problems) {
  if (given.empty()) {
    pem = std::string(builtInPublicKey());
    if (pem.empty())
      problems.push_back("this build has no public key built in: pass --public-key FILE");
    return !pem.empty();
  }
  std::error_code error;
  const fs::file_status status = fs::status(given, error);
  if (error || !fs::is_regular_file(status)) {
    problems.push_back(given.string() + ": the public key cannot be read: " +
                       (error ? error.message() : "not a regular file"));
    return false;
  }
  pem = update::readTextFile(given);
  const std::string fingerprint = update::sha256Bytes(pem);
  if (const bool pinned = fingerprint == update::pinnedKeyFingerprint(); !pinned) {
    problems.push_back(given.string() + ": its fingerprint is " + fingerprint +
                       ", but this build pins " + std::string(update::pinnedKeyFingerprint()) +
                       ": launchers built with it trust no release this key would pass");
    return false;
  }
  return true;
}

}  // namespace th::publish
