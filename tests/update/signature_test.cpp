// Built twice: against the EC development key (ECDSA, DER signatures) and against the RSA
// development key (PKCS #1 v1.5). Each build pins the key it is given.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "update/signature.h"

#if !defined(TH_SIGNING_PRIVATE_KEY) || !defined(TH_SIGNING_PUBLIC_KEY) || \
    !defined(TH_SIGNATURE_SUITE)
#error "the build passes the signing key pair and the suite name"
#endif

namespace th::test {
namespace {

using update::verifySignedManifest;

const std::string kManifest = "{\r\n  \"format\": 1,\n  \"version\": \"1.4.2\"\n}\n";

std::string hexOf(const std::string& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (unsigned char b : bytes) (text += kDigits[b >> 4]) += kDigits[b & 15];
  return text;
}

std::string upper(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// A release as the studio would sign it: with the openssl command line, over the exact bytes.
std::string signWithOpenssl(const TempDir& dir, const std::string& manifest) {
  writeBytes(dir / "manifest.json", manifest);
  const ProcessResult result =
      runProcess({"/usr/bin/openssl", "dgst", "-sha256", "-sign", TH_SIGNING_PRIVATE_KEY, "-out",
                  (dir / "manifest.sig").string(), (dir / "manifest.json").string()});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  return hexOf(readBytes(dir / "manifest.sig"));
}

TEST(TH_SIGNATURE_SUITE, VerifiesOrRejectsWithTheRightCode) {
  TempDir dir;
  const std::string signature = signWithOpenssl(dir, kManifest);
  ASSERT_FALSE(signature.empty());
  const std::string pinnedKey = readBytes(TH_SIGNING_PUBLIC_KEY);
  writeBytes(dir / "key.pem", pinnedKey);
  writeBytes(dir / "key-with-newline.pem", pinnedKey + "\n");
  writeBytes(dir / "empty.pem", "");
  std::string flipped = kManifest;
  flipped[5] ^= 0x01;

  const struct {
    const char* name;
    std::string manifest;
    std::string signature;
    const char* keyFile;
    const char* error;  // empty: accepted
  } table[] = {
      {"valid", kManifest, signature, "key.pem", ""},
      {"upper-case hex", kManifest, upper(signature), "key.pem", ""},
      {"odd length", kManifest, signature.substr(1), "key.pem", "manifest_signature_invalid_hex"},
      {"trailing newline", kManifest, signature + "\n", "key.pem",
       "manifest_signature_invalid_hex"},
      {"0x prefix", kManifest, "0x" + signature, "key.pem", "manifest_signature_invalid_hex"},
      {"blank inside", kManifest, signature.substr(0, 10) + " " + signature.substr(11), "key.pem",
       "manifest_signature_invalid_hex"},
      {"empty", kManifest, "", "key.pem", "manifest_signature_invalid_hex"},
      {"one manifest byte flipped", flipped, signature, "key.pem",
       "manifest_signature_verify_failed"},
      {"trailing newline added to the manifest", kManifest + "\n", signature, "key.pem",
       "manifest_signature_verify_failed"},
      {"last signature byte dropped", kManifest, signature.substr(0, signature.size() - 2),
       "key.pem", "manifest_signature_verify_failed"},
      {"not a signature", kManifest, "00ff", "key.pem", "manifest_signature_verify_failed"},
      {"key file with a newline added", kManifest, "zz", "key-with-newline.pem",
       "update_public_key_fingerprint_mismatch"},
      {"missing key", kManifest, "zz", "missing.pem", "update_public_key_missing"},
      {"empty key", kManifest, signature, "empty.pem", "update_public_key_missing"},
  };
  for (const auto& row : table) {
    std::string error = "untouched";
    const bool accepted =
        verifySignedManifest(row.manifest, row.signature, dir / row.keyFile, error);
    EXPECT_EQ(accepted, std::string(row.error).empty()) << row.name;
    EXPECT_EQ(error, accepted ? "untouched" : row.error) << row.name;
  }
}

}  // namespace
}  // namespace th::test
