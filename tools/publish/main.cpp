// tarn-hollow-publish: the studio's release tool. `keygen` makes a signing key pair; `release`
// publishes a release folder, signed, into an update server's folder tree; `prepare`, `sign` and
// `publish` do the same in three steps, so that the key never has to be where the release is
// built or served; `revert` publishes a kept release's files again under a higher version;
// `verify` checks a served release as a player's launcher would see it.

#include <algorithm>
#include <cstdint>
#include <iostream>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "tools/publish/build_variant.h"
#include "tools/publish/keys/keygen.h"
#include "tools/publish/options.h"
#include "tools/publish/release/prepare_release.h"
#include "tools/publish/release/publish_release.h"
#include "tools/publish/release/sign_release.h"
#include "tools/publish/usage.h"
#include "tools/publish/verify/verify_release.h"
#include "update/pinned_key.h"

namespace {

using Args = std::vector<std::string>;

constexpr int kExitDone = 0;
constexpr int kExitRefused = 1;
constexpr int kExitUsage = 2;

// The length of the well-formed UTF-8 sequence at the start of `text` when it encodes a code point
// from U+00A0 up (C1 controls, U+0080 to U+009F, excluded), or 0.
std::size_t printableUtf8(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const std::size_t length = byte(0) >= 0xf0 ? 4 : byte(0) >= 0xe0 ? 3 : byte(0) >= 0xc0 ? 2 : 0;
  if (length == 0 || byte(0) > 0xf4 || text.size() < length) return 0;
  std::uint32_t point = byte(0) & (0x7f >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
    point = point << 6 | (byte(i) & 0x3f);
  }
  static constexpr std::uint32_t kSmallest[] = {0, 0, 0xa0, 0x800, 0x10000};
  const bool surrogate = point >= 0xd800 && point <= 0xdfff;
  return point >= kSmallest[length] && point <= 0x10ffff && !surrogate ? length : 0;
}

// File names and paths come from the studio's folders and from servers: a control character in
// one (an escape sequence, a line end, a C1 control that a terminal reading 8-bit controls obeys)
// or a byte outside well-formed UTF-8 is shown as \xNN, so that it can neither drive the terminal
// nor forge a line of the report.
std::string printable(const std::string& text) {
  std::string shown;
  for (std::size_t i = 0; i < text.size();) {
    const auto byte = static_cast<unsigned char>(text[i]);
    const std::size_t length = byte < 0x80 ? (byte >= 0x20 && byte != 0x7f)
                                           : printableUtf8(std::string_view(text).substr(i));
    if (length > 0) {
      shown.append(text, i, length);
      i += length;
      continue;
    }
    static constexpr char kDigits[] = "0123456789abcdef";
    ((shown += "\\x") += kDigits[byte >> 4]) += kDigits[byte & 15];
    ++i;
  }
  return shown;
}

int usageError(const std::string& error, const std::string& command = "") {
  std::cerr << "tarn-hollow-publish: " << printable(error) << '\n'
            << th::publish::usageText(command);
  return kExitUsage;
}

int failed(const std::string& headline, const std::vector<std::string>& problems) {
  std::cerr << "tarn-hollow-publish: " << printable(headline) << ":\n";
  for (const std::string& problem : problems) std::cerr << "  " << printable(problem) << '\n';
  return kExitRefused;
}

int refused(const std::vector<std::string>& problems) {
  return failed("refused, nothing was published", problems);
}

void warn(const std::vector<std::string>& warnings) {
  for (const std::string& warning : warnings) {
    std::cerr << "tarn-hollow-publish: warning: " << printable(warning) << '\n';
  }
}

int keygen(const Args& args) {
  th::publish::KeygenOptions options;
  std::string error;
  if (!th::publish::parseKeygenOptions(args, options, error)) return usageError(error, "keygen");
  th::publish::KeygenResult result;
  std::vector<std::string> problems;
  if (!th::publish::generateKeyPair(options, result, problems)) {
    return failed("refused, no key was made", problems);
  }
  const th::publish::TokenKeyName& token = options.token;
  std::cout << "private key: "
            << printable(token.given() ? "in token '" + token.token + "', labelled '" +
                                             token.keyLabel + "' (it never leaves the token)"
                                       : result.privateKey.string() + " (keep it secret)")
            << "\npublic key:  " << printable(result.publicKey.string())
            << " (ship it as data/update_public_key.pem)\n"
            << "fingerprint: " << result.fingerprint << '\n'
            << "build with:  -DTH_UPDATE_KEY_FINGERPRINT=" << result.fingerprint << '\n';
  return kExitDone;
}

int publish(const th::publish::ReleaseOptions& options) {
  th::publish::PublishSummary summary;
  std::vector<std::string> problems;
  const bool published = th::publish::publishRelease(options, summary, problems);
  warn(summary.warnings);
  if (!published) return refused(problems);
  std::cout << "published " << printable(summary.version) << " (" << printable(summary.channel)
            << '/' << printable(summary.platform) << "): " << summary.files << " files, "
            << summary.bytes << " bytes, in " << printable(summary.channelFolder.string()) << '\n';
  if (!options.revertTo.empty()) {
    std::cout << "with the files of " << options.revertTo << ", signed afresh\n";
  }
  if (summary.linked > 0) {
    std::cout << summary.linked << " unchanged files linked from the previous release\n";
  }
  if (!summary.pruned.empty()) {
    std::cout << "older releases removed (beyond --keep " << options.keep << "):";
    for (const std::string& version : summary.pruned) std::cout << ' ' << printable(version);
    std::cout << '\n';
  }
  return kExitDone;
}

// Parses the words of a publishing command; false, with the exit status, after naming the misuse.
bool parsed(const std::string& command, const Args& args, th::publish::ReleaseOptions& options,
            int& status) {
  std::string error;
  if (th::publish::parsePublishingOptions(command, args, options, error)) return true;
  status = usageError(error, command);
  return false;
}

// release, revert, and publish of a prepared folder.
int publishing(const std::string& command, const Args& args) {
  th::publish::ReleaseOptions options;
  int status = kExitUsage;
  return parsed(command, args, options, status) ? publish(options) : status;
}

int prepare(const Args& args) {
  th::publish::ReleaseOptions options;
  int status = kExitUsage;
  if (!parsed("prepare", args, options, status)) return status;
  th::publish::PrepareSummary summary;
  std::vector<std::string> problems;
  const bool prepared = th::publish::prepareRelease(options, summary, problems);
  warn(summary.warnings);
  if (!prepared) return failed("refused, nothing was prepared", problems);
  std::cout << "prepared " << options.version << " (" << options.channel << '/' << options.platform
            << "): " << summary.files << " files, " << summary.bytes << " bytes, in "
            << printable(options.prepared.string()) << '\n'
            << "manifest SHA-256: " << summary.manifestDigest << '\n'
            << "sign it with the key of fingerprint " << th::update::pinnedKeyFingerprint() << '\n';
  return kExitDone;
}

// Shows what is about to be signed before the key is even opened.
int sign(const Args& args) {
  th::publish::ReleaseOptions options;
  int status = kExitUsage;
  if (!parsed("sign", args, options, status)) return status;
  th::publish::PreparedManifest prepared;
  std::vector<std::string> problems, warnings;
  if (!th::publish::readPreparedManifest(options.prepared, prepared, problems)) {
    return failed("refused, nothing was signed", problems);
  }
  const th::update::Manifest& manifest = prepared.manifest;
  std::cout << "signing " << printable(manifest.version) << " (" << printable(manifest.channel)
            << '/' << printable(manifest.platform) << "): " << manifest.files.size() << " files, "
            << prepared.bytes << " bytes\nmanifest SHA-256: " << prepared.digest << std::endl;
  const bool signedIt = th::publish::signPrepared(options, prepared, problems, warnings);
  warn(warnings);
  if (!signedIt) return failed("refused, nothing was signed", problems);
  std::cout << "signed: " << printable((options.prepared / "manifest.sig").string()) << '\n';
  return kExitDone;
}

int verify(const Args& args) {
  th::publish::VerifyOptions options;
  std::string error;
  if (!th::publish::parseVerifyOptions(args, options, error)) return usageError(error, "verify");
  th::publish::VerifySummary summary;
  std::vector<std::string> problems;
  if (!th::publish::checkPublicKeyOption(options, problems)) {
    return failed("nothing was checked", problems);
  }
  const bool good = th::publish::verifyRelease(options, summary, problems);
  warn(summary.warnings);
  if (!good) {
    return failed(summary.folderUrl + " does not serve a good release", problems);
  }
  std::cout << "verified " << summary.version << " at " << printable(summary.folderUrl) << ": "
            << summary.files << " files, " << summary.bytes
            << " bytes, each as its signed manifest says\n";
  return kExitDone;
}

// The development-key variant says so wherever it introduces itself: releases signed for it
// reach no player of a studio's build.
std::string variantNote() {
  return th::publish::builtWithDevelopmentKey()
             ? "This build pins the DEVELOPMENT key, whose private half is public: for tests only, "
               "never for a release.\n"
             : "";
}

int version() {
  std::cout << "tarn-hollow-publish " << TH_VERSION << '\n'
            << "pins the update key with fingerprint " << th::update::pinnedKeyFingerprint() << '\n'
            << variantNote();
  return kExitDone;
}

int help(const std::string& command = "") {
  std::cout << variantNote() << th::publish::helpText(command);
  return kExitDone;
}

}  // namespace

int main(int argc, char** argv) {
  const Args words(argv + std::min(argc, 1), argv + argc);
  if (words.empty()) return usageError("missing command");
  if (words[0] == "--version") return version();
  if (words[0] == "--help" || words[0] == "-h") return help();
  static const std::map<std::string, int (*)(const Args&)> kCommands = {
      {"keygen", keygen},
      {"release", [](const Args& args) { return publishing("release", args); }},
      {"revert", [](const Args& args) { return publishing("revert", args); }},
      {"prepare", prepare},
      {"sign", sign},
      {"publish", [](const Args& args) { return publishing("publish", args); }},
      {"verify", verify}};
  const auto command = kCommands.find(words[0]);
  if (command == kCommands.end()) return usageError("unknown command '" + words[0] + "'");
  const Args args(words.begin() + 1, words.end());
  if (th::publish::asksForHelp(words[0], args)) return help(words[0]);
  return command->second(args);
}
