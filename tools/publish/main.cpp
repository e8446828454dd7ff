// tarn-hollow-publish: the studio's release tool. `keygen` makes a signing key pair;
// `release` publishes a release folder, signed, into an update server's folder tree.

#include <algorithm>
#include <iostream>
#include <string>
#include <vector>

#include "tools/publish/keygen.h"
#include "tools/publish/options.h"
#include "tools/publish/publish_release.h"

namespace {

constexpr int kExitDone = 0;
constexpr int kExitRefused = 1;
constexpr int kExitUsage = 2;

int usageError(const std::string& error) {
  std::cerr << "tarn-hollow-publish: " << error << '\n' << th::publish::usageText();
  return kExitUsage;
}

int refused(const std::vector<std::string>& problems) {
  std::cerr << "tarn-hollow-publish: refused, nothing was published:\n";
  for (const std::string& problem : problems) std::cerr << "  " << problem << '\n';
  return kExitRefused;
}

int keygen(const std::vector<std::string>& args) {
  th::publish::KeygenOptions options;
  std::string error;
  if (!th::publish::parseKeygenOptions(args, options, error)) return usageError(error);
  th::publish::KeygenResult result;
  std::vector<std::string> problems;
  if (!th::publish::generateKeyPair(options.out, result, problems)) return refused(problems);
  std::cout << "private key: " << result.privateKey.string() << " (keep it secret)\n"
            << "public key:  " << result.publicKey.string()
            << " (ship it as data/update_public_key.pem)\n"
            << "fingerprint: " << result.fingerprint << '\n'
            << "build with:  -DTH_UPDATE_KEY_FINGERPRINT=" << result.fingerprint << '\n';
  return kExitDone;
}

int release(const std::vector<std::string>& args) {
  th::publish::ReleaseOptions options;
  std::string error;
  if (!th::publish::parseReleaseOptions(args, options, error)) return usageError(error);
  th::publish::PublishSummary summary;
  std::vector<std::string> problems;
  if (!th::publish::publishRelease(options, summary, problems)) return refused(problems);
  std::cout << "published " << options.version << " (" << options.channel << '/' << options.platform
            << "): " << summary.files << " files, " << summary.bytes << " bytes, in "
            << summary.channelFolder.string() << '\n';
  return kExitDone;
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> words(argv + std::min(argc, 1), argv + argc);
  if (words.empty()) return usageError("missing command");
  const std::vector<std::string> args(words.begin() + 1, words.end());
  if (words[0] == "keygen") return keygen(args);
  if (words[0] == "release") return release(args);
  return usageError("unknown command '" + words[0] + "'");
}
