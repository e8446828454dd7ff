#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace th::test {

// One file of a test release: {"path", "bytes"}, {"path", "bytes", true} or, to announce a size
// other than the byte count, {"path", "bytes", false, 999}.
struct ReleaseFile {
  std::string path;   // relative, '/'-separated, as written into the manifest
  std::string bytes;  // served content; the manifest carries its SHA-256
  bool executable = false;
  std::optional<std::uint64_t> announcedSize{};  // manifest "size"; default bytes.size()
};

// A stable/linux release as the studio would publish it. Files keep their order in the manifest.
struct Release {
  std::string version = "1.0.0";
  std::vector<ReleaseFile> files;
  bool mandatory = false;
  std::string minimumOnlineVersion;
};

// <serverRoot>/<channel>/linux: the folder holding manifest.json, manifest.sig and files/.
std::filesystem::path channelFolder(const std::filesystem::path& serverRoot,
                                    const std::string& channel = "stable");

// Lower-case hex of an OpenSSL SHA-256 signature (EVP API) over exactly `bytes`.
std::string signHex(std::string_view bytes,
                    const std::filesystem::path& privateKey = TH_DEV_PRIVATE_KEY);

// Writes files/<path> for every file, manifest.json and manifest.sig (signed with the
// development key) under channelFolder(serverRoot). Returns the manifest text.
std::string publishRelease(const std::filesystem::path& serverRoot, const Release& release);

// Writes manifest.json and manifest.sig exactly as given, for hostile servers.
void publishRawManifest(const std::filesystem::path& serverRoot, const std::string& manifest,
                        const std::string& signature);

// Prepares an install folder: data/update_public_key.pem (a copy of the development public key),
// data/update_server.txt and data/game_version when given (bytes exactly as passed).
void prepareInstall(const std::filesystem::path& installDir,
                    const std::optional<std::string>& serverUrl,
                    const std::optional<std::string>& gameVersion = std::nullopt);

}  // namespace th::test
