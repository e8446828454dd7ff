#include "tools/publish/keys/signing_key.h"

#include <cstdio>
#include <system_error>

#include "tools/publish/build_variant.h"
#include "tools/publish/release/manifest_json.h"
#include "update/manifest.h"
#include "update/pinned_key.h"
#include "update/signature.h"
#include "update/text_file.h"

namespace th::publish {
namespace fs = std::filesystem;
namespace {

using Problems = std::vector<std::string>;

// A key in the clear signs for whoever reads the file: it may be open to its owner alone.
void judgeKeyFile(const fs::path& file, const LoadedKey& loaded, Problems& problems,
                  Problems& warnings) {
  if (loaded.encrypted) return;
  if ((loaded.mode & 077) != 0) {
    char mode[16];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(loaded.mode & 07777));
    problems.push_back(file.string() + ": a key in the clear that group or others may open (mode " +
                       mode + "); chmod 600 it, or better, encrypt it");
  } else {
    warnings.push_back(file.string() +
                       ": the signing key is not encrypted; anyone who reads the file can sign "
                       "releases");
  }
}

// The key must sign, and its public half must be the key that this build's engine pins, or the
// launchers built alongside would refuse every release signed with it.
}  // namespace

void checkKey(const fs::path& file, const PassphraseSource& passphrase, SigningKey& signing,
              Problems& problems, Problems& warnings) {
  std::string error, probe;
  if (!loadPrivateKey(file, passphrase, signing.loaded, error)) {
    problems.push_back(file.string() + ": " + error);
    return;
  }
  judgeKeyFile(file, signing.loaded, problems, warnings);
  EVP_PKEY* key = signing.loaded.key.get();
  if (!publicKeyPem(key, signing.publicPem, error)) {
    problems.push_back(file.string() + ": its public key cannot be encoded");
    return;
  }
  if (!signSha256(key, "probe", probe, error)) {
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

// Reads the signed manifest back the way every launcher will, before anyone can fetch it. The
// key file it needs is removed again, so it is never served.
void checkAsLaunchersRead(const std::string& json, const std::string& signature,
                          const std::string& publicPem, const fs::path& folder,
                          const update::Manifest& intended, Problems& problems) {
  const fs::path publicKey = folder / "update_public_key.pem";
  std::string error;
  update::Manifest parsed;
  const bool written = update::writeTextFile(publicKey, publicPem);
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
