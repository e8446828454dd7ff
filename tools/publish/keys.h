#pragma once
// The studio's signing key: generation, PEM files, and SHA-256 signatures over the manifest.

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "update/openssl_handles.h"

namespace th::publish {

using PrivateKey = update::Key;

// A fresh EC P-256 key pair. Error: "key_generation_failed".
bool generateKey(PrivateKey& key, std::string& error);

// Reads an unencrypted PEM private key. Error: "private_key_unreadable".
bool loadPrivateKey(const std::filesystem::path& file, PrivateKey& key, std::string& error);

// PEM texts of the private key and of its public half (SubjectPublicKeyInfo, the bytes the
// launcher's fingerprint is taken over). Error: "pem_encoding_failed".
bool privateKeyPem(EVP_PKEY* key, std::string& pem, std::string& error);
bool publicKeyPem(EVP_PKEY* key, std::string& pem, std::string& error);

// Signs with SHA-256 under the key type's default scheme (RSA: PKCS #1 v1.5, EC: ECDSA with a
// DER signature) and returns the signature as lower-case hex. Error: "key_cannot_sign".
bool signSha256(EVP_PKEY* key, std::string_view bytes, std::string& signatureHex,
                std::string& error);

}  // namespace th::publish
