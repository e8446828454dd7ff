#pragma once
// A new signing key pair for a studio.

#include <filesystem>
#include <string>
#include <vector>

namespace th::publish {

struct KeygenResult {
  std::filesystem::path privateKey;  // DIR/update-private-key.pem, mode 0600
  std::filesystem::path publicKey;   // DIR/update-public-key.pem, shipped as the install's key
  std::string fingerprint;           // SHA-256 of the public key file's bytes
};

// Writes a fresh EC P-256 key pair into `out` (created if needed); never overwrites a key.
bool generateKeyPair(const std::filesystem::path& out, KeygenResult& result,
                     std::vector<std::string>& problems);

}  // namespace th::publish
