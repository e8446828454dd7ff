#include "tests/support/release_builder.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstdio>
#include <memory>

#include "tests/support/digest.h"
#include "tests/support/temp_dir.h"

namespace th::test {
namespace {

struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct KeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct MdCtxFree {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

std::string jsonEscaped(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char code[8];
          std::snprintf(code, sizeof code, "\\u%04x", static_cast<unsigned>(c));
          out += code;
        } else {
          out.push_back(c);
        }
    }
  }
  return out + "\"";
}

std::string fileEntry(const ReleaseFile& file) {
  const std::uint64_t size = file.announcedSize.value_or(file.bytes.size());
  return "    { \"path\": " + jsonEscaped(file.path) + ", \"sha256\": \"" + sha256Hex(file.bytes) +
         "\", \"size\": " + std::to_string(size) +
         ", \"executable\": " + (file.executable ? "true" : "false") + " }";
}

}  // namespace

std::filesystem::path channelFolder(const std::filesystem::path& serverRoot,
                                    const std::string& channel, const std::string& platform) {
  return serverRoot / channel / platform;
}

std::string manifestText(const Release& release) {
  std::string text = "{\n";
  text += "  \"format\": 1,\n";
  text += "  \"product\": \"tarn-hollow\",\n";
  text += "  \"channel\": " + jsonEscaped(release.channel) + ",\n";
  text += "  \"platform\": " + jsonEscaped(release.platform) + ",\n";
  text += "  \"version\": " + jsonEscaped(release.version) + ",\n";
  text += "  \"protocol_version\": 1,\n";
  text += "  \"minimum_online_version\": " + jsonEscaped(release.minimumOnlineVersion) + ",\n";
  text += std::string("  \"mandatory\": ") + (release.mandatory ? "true" : "false") + ",\n";
  text += "  \"release_notes\": " + jsonEscaped(release.releaseNotes) + ",\n";
  text += "  \"files\": [\n";
  for (size_t i = 0; i < release.files.size(); ++i) {
    text += fileEntry(release.files[i]) + (i + 1 < release.files.size() ? ",\n" : "\n");
  }
  return text + "  ]\n}\n";
}

std::string signHex(std::string_view bytes, const std::filesystem::path& privateKey) {
  std::unique_ptr<BIO, BioFree> bio(BIO_new_file(privateKey.c_str(), "r"));
  std::unique_ptr<EVP_PKEY, KeyFree> key(
      bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  std::unique_ptr<EVP_MD_CTX, MdCtxFree> ctx(EVP_MD_CTX_new());
  size_t length = 0;
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  if (!key || !ctx ||
      EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1 ||
      EVP_DigestSign(ctx.get(), nullptr, &length, data, bytes.size()) != 1) {
    ADD_FAILURE() << "cannot sign with " << privateKey;
    return {};
  }
  std::vector<unsigned char> signature(length);
  if (EVP_DigestSign(ctx.get(), signature.data(), &length, data, bytes.size()) != 1) {
    ADD_FAILURE() << "signing failed with " << privateKey;
    return {};
  }
  return lowerHex(signature.data(), length);
}

std::string publishRelease(const std::filesystem::path& serverRoot, const Release& release) {
  const std::filesystem::path folder = channelFolder(serverRoot, release.channel, release.platform);
  for (const ReleaseFile& file : release.files)
    writeBytes(folder / "files" / file.path, file.bytes);
  const std::string manifest = manifestText(release);
  publishRawManifest(serverRoot, manifest, signHex(manifest, release.privateKey), release.channel,
                     release.platform);
  return manifest;
}

void publishRawManifest(const std::filesystem::path& serverRoot, const std::string& manifest,
                        const std::string& signature, const std::string& channel,
                        const std::string& platform) {
  const std::filesystem::path folder = channelFolder(serverRoot, channel, platform);
  writeBytes(folder / "manifest.json", manifest);
  writeBytes(folder / "manifest.sig", signature);
}

void prepareInstall(const std::filesystem::path& installDir,
                    const std::optional<std::string>& serverUrl,
                    const std::optional<std::string>& gameVersion) {
  writeBytes(installDir / "data" / "update_public_key.pem", readBytes(TH_DEV_PUBLIC_KEY));
  if (serverUrl) writeBytes(installDir / "data" / "update_server.txt", *serverUrl);
  if (gameVersion) writeBytes(installDir / "data" / "game_version", *gameVersion);
}

}  // namespace th::test
