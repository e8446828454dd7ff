#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace th::test {

// One file of a test release: {"path", "bytes"}, {"path", "bytes", true} or, to announce a size
// other than the byte count, {"path", "bytes", false, 999}.
struct ReleaseFile {
  ReleaseFile() = default;
  ReleaseFile(std::string path, std::string bytes, bool executable = false,
              std::optional<std::uint64_t> announcedSize = std::nullopt)
      : path(std::move(path)),
        bytes(std::move(bytes)),
        executable(executable),
        announcedSize(announcedSize) {}

  std::string path;   // relative, '/'-separated, as written into the manifest
  std::string bytes;  // served content; the manifest carries its SHA-256
  bool executable = false;
  std::optional<std::uint64_t> announcedSize;  // manifest "size"; default bytes.size()
};

// A release as the studio would publish it. Files keep their order in the manifest.
struct Release {
  std::string version = "1.0.0";
  std::string channel = "stable";
  std::string platform = "linux";
  std::vector<ReleaseFile> files;
  std::string releaseNotes;          // "release_notes"
  bool mandatory = false;            // "mandatory"
  std::string minimumOnlineVersion;  // "minimum_online_version"
  std::filesystem::path privateKey = TH_DEV_PRIVATE_KEY;
};

// <serverRoot>/<channel>/<platform>: the folder holding manifest.json, manifest.sig and files/.
std::filesystem::path channelFolder(const std::filesystem::path& serverRoot,
                                    const std::string& channel = "stable",
                                    const std::string& platform = "linux");

// The manifest text of `release` (product "tarn-hollow", format 1, strings JSON-escaped).
std::string manifestText(const Release& release);

// Lower-case hex of an OpenSSL SHA-256 signature (EVP API) over exactly `bytes`.
std::string signHex(std::string_view bytes,
                    const std::filesystem::path& privateKey = TH_DEV_PRIVATE_KEY);

// Writes files/<path> for every file, manifest.json and manifest.sig (signed with
// release.privateKey) under channelFolder(serverRoot, release.channel, release.platform).
// Returns the manifest text.
std::string publishRelease(const std::filesystem::path& serverRoot, const Release& release);

// Writes manifest.json and manifest.sig exactly as given, for hostile servers.
void publishRawManifest(const std::filesystem::path& serverRoot, const std::string& manifest,
                        const std::string& signature, const std::string& channel = "stable",
                        const std::string& platform = "linux");

// Prepares an install folder: data/update_public_key.pem (a copy of the development public key),
// data/update_server.txt and data/game_version when given (bytes exactly as passed).
void prepareInstall(const std::filesystem::path& installDir,
                    const std::optional<std::string>& serverUrl,
                    const std::optional<std::string>& gameVersion = std::nullopt);

}  // namespace th::test
