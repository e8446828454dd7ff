#pragma once
// A new signing key pair for a studio.

#include <filesystem>
#include <string>
#include <vector>

#include "tools/publish/options.h"

namespace th::publish {

struct KeygenResult {
  std::filesystem::path privateKey;  // DIR/update-private-key.pem, mode 0600; empty for a token
  std::filesystem::path publicKey;   // DIR/update-public-key.pem, shipped as the install's key
  std::string fingerprint;           // SHA-256 of the public key file's bytes
};

// Writes a fresh EC P-256 key pair into `options.out` (created if needed), the private key
// encrypted under the passphrase unless `options.unencrypted`; or, for a token, makes the pair in
// the token and writes only the public key. Never overwrites a key.
bool generateKeyPair(const KeygenOptions& options, KeygenResult& result,
                     std::vector<std::string>& problems);

}  // namespace th::publish
