#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace th::update {

// SHA-256 as 64 lower-case hex digits; empty on a library failure.
std::string sha256Bytes(std::string_view bytes);
// SHA-256 of a file's bytes, streamed; empty when the file cannot be read.
std::string sha256File(const std::filesystem::path& path);

// True when `signatureHex` is a valid signature of `manifest` by the key in `publicKeyFile`,
// whose bytes must hash to the pinned fingerprint. On false sets `error` to one of
// "update_public_key_missing", "update_public_key_fingerprint_mismatch",
// "manifest_signature_invalid_hex", "openssl_bio_failed", "public_key_parse_failed",
// "openssl_ctx_failed", "manifest_signature_verify_failed".
bool verifySignedManifest(std::string_view manifest, std::string_view signatureHex,
                          const std::filesystem::path& publicKeyFile, std::string& error);

}  // namespace th::update
