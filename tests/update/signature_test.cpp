// Built twice: against the EC development key (ECDSA, DER signatures) and against the RSA
// development key (PKCS #1 v1.5). Each build pins the key it is given.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/update_server.h"
#include "update/signature.h"

namespace th::test {
namespace {

using update::verifySignedManifest;

const std::string kManifest = "{\r\n  \"format\": 1,\n  \"version\": \"1.4.2\"\n}\n";

TEST(TH_SIGNATURE_SUITE, VerifiesOrRejectsWithTheRightCode) {
  TempDir dir;
  const std::string signature = signHex(kManifest, TH_SIGNING_PRIVATE_KEY);
  const std::filesystem::path key = TH_SIGNING_PUBLIC_KEY, keyWithNewline = dir / "key.pem";
  writeBytes(keyWithNewline, readBytes(key) + "\n");
  std::string upper = signature, flipped = kManifest;
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  flipped[5] ^= 0x01;

  const struct {
    std::string name, manifest, signature;
    std::filesystem::path key;
    std::string error;  // empty: accepted
  } table[] = {
      {"valid", kManifest, signature, key, ""},
      {"upper-case hex", kManifest, upper, key, ""},
      {"odd length", kManifest, signature.substr(1), key, "manifest_signature_invalid_hex"},
      {"trailing newline", kManifest, signature + "\n", key, "manifest_signature_invalid_hex"},
      {"one manifest byte flipped", flipped, signature, key, "manifest_signature_verify_failed"},
      {"key file with a newline added", kManifest, "zz", keyWithNewline,
       "update_public_key_fingerprint_mismatch"},
      {"missing key", kManifest, "zz", dir / "missing.pem", "update_public_key_missing"},
  };
  for (const auto& row : table) {
    std::string error = "untouched";
    const bool accepted = verifySignedManifest(row.manifest, row.signature, row.key, error);
    EXPECT_EQ(accepted, row.error.empty()) << row.name;
    EXPECT_EQ(error, accepted ? "untouched" : row.error) << row.name;
  }
}

}  // namespace
}  // namespace th::test
