#include "tools/publish/release/sign_release.h"

#include <system_error>

#include "tools/publish/keys/signing_key.h"
#include "update/signature.h"
#include "update/text_file.h"

namespace th::publish {
namespace fs = std::filesystem;

bool readPreparedManifest(const fs::path& folder, PreparedManifest& prepared,
                          std::vector<std::string>& problems) {
  const fs::path file = folder / "manifest.json";
  std::error_code error;
  if (!fs::is_regular_file(file, error)) {
    problems.push_back(file.string() + ": no prepared manifest (run prepare first)");
    return false;
  }
  prepared.json = update::readTextFile(file);
  std::string unreadable;
  if (!update::parseManifest(prepared.json, prepared.manifest, unreadable)) {
    problems.push_back(file.string() + ": the launcher cannot read it: " + unreadable);
    return false;
  }
  prepared.digest = update::sha256Bytes(prepared.json);
  for (const update::ManifestFile& entry : prepared.manifest.files) prepared.bytes += entry.size;
  return true;
}

bool signPrepared(const ReleaseOptions& options, const PreparedManifest& prepared,
                  std::vector<std::string>& problems, std::vector<std::string>& warnings) {
  SigningKey signing;
  checkKey(options.key, signing, problems, warnings);
  std::string signature, error;
  if (!problems.empty()) return false;
  if (!signing->sign(prepared.json, signature, error)) {
    problems.push_back(signing->name() + ": signing failed: " + error);
    return false;
  }
  checkAsLaunchersRead(prepared.json, signature, signing->publicPem(), options.prepared,
                       prepared.manifest, problems);
  const fs::path file = options.prepared / "manifest.sig";
  if (problems.empty() && !update::writeTextFile(file, signature)) {
    problems.push_back(file.string() + ": cannot be written");
  }
  return problems.empty();
}

}  // namespace th::publish
