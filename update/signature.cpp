#include "update/signature.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <memory>
#include <optional>
#include <vector>

#include "update/crypto_api.h"
#include "update/file_descriptor.h"
#include "update/pinned_key.h"
#include "update/text_file.h"

namespace th::update {
namespace {

constexpr std::size_t kDigestBytes = 32;
constexpr std::size_t kFileChunkBytes = 65536;

std::string hex(const unsigned char* bytes, std::size_t length) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(length * 2);
  for (std::size_t i = 0; i < length; ++i) {
    text.push_back(kDigits[bytes[i] >> 4]);
    text.push_back(kDigits[bytes[i] & 0x0f]);
  }
  return text;
}

// Fetched once: passing EVP_sha256() makes the library look the algorithm up again on every
// init, a noticeable part of hashing a small file. Read-only once fetched, so threads share it.
const EVP_MD* sha256Algorithm() {
  static EVP_MD* const algorithm =
      crypto() != nullptr ? crypto()->mdFetch(nullptr, "SHA256", nullptr) : nullptr;
  return algorithm;
}

LoadedDigestContext startSha256() {
  const EVP_MD* algorithm = sha256Algorithm();
  LoadedDigestContext context(algorithm != nullptr ? crypto()->contextNew() : nullptr);
  if (context && crypto()->digestInit(context.get(), algorithm, nullptr) != 1) context.reset();
  return context;
}

// Bytes read, 0 at the end of the file, -1 on a read error (a folder opens but cannot be read).
ssize_t readChunk(int fd, char* chunk) {
  ssize_t got;
  do {
    got = ::read(fd, chunk, kFileChunkBytes);
  } while (got < 0 && errno == EINTR);
  return got;
}

std::string finishSha256(EVP_MD_CTX* context) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (crypto()->digestFinal(context, digest, &length) != 1 || length != kDigestBytes) return {};
  return hex(digest, length);
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Strict: no blanks, no prefix, no trimming; empty, odd or non-hex text is refused.
std::optional<std::vector<unsigned char>> decodeHex(std::string_view text) {
  if (text.empty() || text.size() % 2 != 0) return std::nullopt;
  std::vector<unsigned char> bytes;
  bytes.reserve(text.size() / 2);
  for (std::size_t i = 0; i < text.size(); i += 2) {
    const int high = hexDigit(text[i]);
    const int low = hexDigit(text[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes.push_back(static_cast<unsigned char>(high * 16 + low));
  }
  return bytes;
}

// The scheme follows the key's type with the library's defaults: PKCS #1 v1.5 for RSA, ECDSA
// with a DER signature for EC keys; both over SHA-256.
bool signatureMatches(EVP_PKEY* key, std::string_view manifest,
                      const std::vector<unsigned char>& signature, EVP_MD_CTX* context) {
  const CryptoApi& api = *crypto();
  return api.verifyInit(context, nullptr, api.sha256(), nullptr, key) == 1 &&
         api.verifyUpdate(context, manifest.data(), manifest.size()) == 1 &&
         api.verifyFinal(context, signature.data(), signature.size()) == 1;
}

bool fail(std::string& error, const char* code) {
  error = code;
  return false;
}

}  // namespace

std::string sha256Bytes(std::string_view bytes) {
  LoadedDigestContext context = startSha256();
  if (!context || crypto()->digestUpdate(context.get(), bytes.data(), bytes.size()) != 1) return {};
  return finishSha256(context.get());
}

std::string sha256File(const std::filesystem::path& path) {
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) return {};
  LoadedDigestContext context = startSha256();
  if (!context) return {};
  // On the stack and left uninitialised: nothing to allocate or zero-fill per file.
  char chunk[kFileChunkBytes];
  ssize_t got;
  for (bool first = true; (got = readChunk(file.get(), chunk)) > 0; first = false) {
    // A file that fills the first chunk is read front to back: ask for aggressive read-ahead.
    // Small files, the bulk of a large install's count, are spared the call.
    if (first && got == static_cast<ssize_t>(kFileChunkBytes))
      ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    if (crypto()->digestUpdate(context.get(), chunk, static_cast<std::size_t>(got)) != 1) return {};
  }
  if (got < 0) return {};
  return finishSha256(context.get());
}

bool verifySignedManifest(std::string_view manifest, std::string_view signatureHex,
                          const std::filesystem::path& publicKeyFile, std::string& error) {
  const std::string keyBytes = readTextFile(publicKeyFile);
  if (keyBytes.empty()) return fail(error, "update_public_key_missing");
  const std::string fingerprint = sha256Bytes(keyBytes);
  if (fingerprint.size() != 64 || fingerprint != pinnedKeyFingerprint())
    return fail(error, "update_public_key_fingerprint_mismatch");
  const std::optional<std::vector<unsigned char>> signature = decodeHex(signatureHex);
  if (!signature) return fail(error, "manifest_signature_invalid_hex");

  // Reached only with a digest of the key, so libcrypto is loaded.
  const CryptoApi& api = *crypto();
  LoadedBio bio(api.memoryBio(keyBytes.data(), static_cast<int>(keyBytes.size())));
  if (!bio) return fail(error, "openssl_bio_failed");
  LoadedKey key(api.readPublicKey(bio.get(), nullptr, nullptr, nullptr));
  bio.reset();
  if (!key) return fail(error, "public_key_parse_failed");
  LoadedDigestContext context(api.contextNew());
  if (!context) return fail(error, "openssl_ctx_failed");
  if (!signatureMatches(key.get(), manifest, *signature, context.get()))
    return fail(error, "manifest_signature_verify_failed");
  return true;
}

}  // namespace th::update
