#pragma once
// The studio's signing key: generation, PEM files, and SHA-256 signatures over the manifest.

#include <sys/types.h>

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tools/publish/keys/passphrase.h"
#include "update/openssl_handles.h"

namespace th::publish {

using PrivateKey = update::Key;

// A fresh EC P-256 key pair. Error: "key_generation_failed".
bool generateKey(PrivateKey& key, std::string& error);

struct LoadedKey {
  PrivateKey key;
  bool encrypted = false;  // false: the file holds it in the clear
  mode_t mode = 0;         // the file's permission bits
};

// Reads a PEM private key, in the clear or encrypted (any PKCS #8 work factor); the passphrase
// of an encrypted one is read from `source` when needed. On failure `problem` says why: "cannot
// be read: " and the system's reason, "not a PEM private key", "the passphrase does not decrypt
// this key", or "encrypted, and " what kept the passphrase away.
bool loadPrivateKey(const std::filesystem::path& file, const PassphraseSource& source,
                    LoadedKey& loaded, std::string& problem);

// PBKDF2-HMAC-SHA256 iterations for a key that keygen encrypts: each passphrase guess costs an
// attacker who holds the file this many HMACs.
constexpr int kKeyEncryptionIterations = 600000;

// PEM texts of the private key, encrypted with AES-256-CBC under `passphrase` (PKCS #8, PBES2
// with kKeyEncryptionIterations) unless that is null, and of its public half
// (SubjectPublicKeyInfo, the bytes the launcher's fingerprint is taken over). Error:
// "pem_encoding_failed".
bool privateKeyPem(EVP_PKEY* key, const std::string* passphrase, std::string& pem,
                   std::string& error);
bool publicKeyPem(EVP_PKEY* key, std::string& pem, std::string& error);

// Signs with SHA-256 under the key type's default scheme (RSA: PKCS #1 v1.5, EC: ECDSA with a
// DER signature) and returns the signature as lower-case hex. Error: "key_cannot_sign".
bool signSha256(EVP_PKEY* key, std::string_view bytes, std::string& signatureHex,
                std::string& error);

// True when `signatureHex` is a SHA-256 signature of `bytes`, under the scheme signSha256 uses,
// by the public key whose PEM is `publicPem`.
bool verifiesSha256(const std::string& publicPem, std::string_view bytes,
                    const std::string& signatureHex);

// Lower-case hex of `bytes`, as manifests and signatures carry digests.
std::string hexOf(const std::vector<unsigned char>& bytes);

}  // namespace th::publish
