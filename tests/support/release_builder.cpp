#include "tests/support/release_builder.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstdio>
#include <memory>

#include "tests/support/files.h"

namespace th::test {
namespace {

std::string manifestText(const Release& release) {
  std::string text = "{\n  \"format\": 1,\n  \"product\": \"tarn-hollow\",\n";
  text += "  \"channel\": \"stable\",\n  \"platform\": \"linux\",\n";
  text += "  \"version\": \"" + release.version + "\",\n  \"protocol_version\": 1,\n";
  text += "  \"minimum_online_version\": \"" + release.minimumOnlineVersion + "\",\n";
  text += std::string("  \"mandatory\": ") + (release.mandatory ? "true" : "false") + ",\n";
  text += "  \"release_notes\": \"\",\n  \"files\": [\n";
  for (const ReleaseFile& file : release.files) {
    text += "    { \"path\": \"" + file.path + "\", \"sha256\": \"" + sha256Hex(file.bytes) +
            "\", \"size\": " + std::to_string(file.announcedSize.value_or(file.bytes.size())) +
            ", \"executable\": " + (file.executable ? "true" : "false") + " }" +
            (&file != &release.files.back() ? ",\n" : "\n");
  }
  return text + "  ]\n}\n";
}

}  // namespace

std::filesystem::path channelFolder(const std::filesystem::path& serverRoot,
                                    const std::string& channel) {
  return serverRoot / channel / "linux";
}

std::string signHex(std::string_view bytes, const std::filesystem::path& privateKey) {
  std::unique_ptr<FILE, decltype(&std::fclose)> file(std::fopen(privateKey.c_str(), "r"),
                                                     std::fclose);
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
      file ? PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr) : nullptr, EVP_PKEY_free);
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  std::vector<unsigned char> signature(1024);
  size_t length = signature.size();
  if (!key || EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1 ||
      EVP_DigestSign(ctx.get(), signature.data(), &length, data, bytes.size()) != 1) {
    ADD_FAILURE() << "cannot sign with " << privateKey;
    return {};
  }
  return lowerHex(signature.data(), length);
}

std::string publishRelease(const std::filesystem::path& serverRoot, const Release& release) {
  for (const ReleaseFile& file : release.files)
    writeBytes(channelFolder(serverRoot) / "files" / file.path, file.bytes);
  const std::string manifest = manifestText(release);
  publishRawManifest(serverRoot, manifest, signHex(manifest));
  return manifest;
}

void publishRawManifest(const std::filesystem::path& serverRoot, const std::string& manifest,
                        const std::string& signature) {
  writeBytes(channelFolder(serverRoot) / "manifest.json", manifest);
  writeBytes(channelFolder(serverRoot) / "manifest.sig", signature);
}

void prepareInstall(const std::filesystem::path& installDir,
                    const std::optional<std::string>& serverUrl,
                    const std::optional<std::string>& gameVersion) {
  writeBytes(installDir / "data" / "update_public_key.pem", readBytes(TH_DEV_PUBLIC_KEY));
  if (serverUrl) writeBytes(installDir / "data" / "update_server.txt", *serverUrl);
  if (gameVersion) writeBytes(installDir / "data" / "game_version", *gameVersion);
}

}  // namespace th::test
