#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace th::test {

// {"path", "bytes"}, {"path", "bytes", true} (executable) or {"path", "bytes", false, 999} to
// announce another size in the manifest.
struct ReleaseFile {
  std::string path;
  std::string bytes;
  bool executable = false;
  std::optional<std::uint64_t> announcedSize{};
};

// A stable/linux release; files keep their order in the manifest.
struct Release {
  std::string version = "1.0.0";
  std::vector<ReleaseFile> files;
  bool mandatory = false;
  std::string minimumOnlineVersion;
};

// <serverRoot>/<channel>/linux, the folder of manifest.json, manifest.sig and files/.
std::filesystem::path channelFolder(const std::filesystem::path& serverRoot,
                                    const std::string& channel = "stable");
// Lower-case hex of an OpenSSL SHA-256 signature over exactly `bytes`.
std::string signHex(std::string_view bytes,
                    const std::filesystem::path& privateKey = TH_DEV_PRIVATE_KEY);
// Writes the files, the manifest and its signature (development key); returns the manifest.
std::string publishRelease(const std::filesystem::path& serverRoot, const Release& release);
// Writes manifest.json and manifest.sig exactly as given, for hostile servers.
void publishRawManifest(const std::filesystem::path& serverRoot, const std::string& manifest,
                        const std::string& signature);
// The development public key, and the server address and version marker when given.
void prepareInstall(const std::filesystem::path& installDir,
                    const std::optional<std::string>& serverUrl,
                    const std::optional<std::string>& gameVersion = std::nullopt);

}  // namespace th::test
