#include "tools/publish/keys/keys.h"

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#include <algorithm>
#include <vector>

#include "tools/publish/keys/passphrase.h"
#include "tools/publish/keys/secret_file.h"

namespace th::publish {
namespace {

using update::Bio;
using update::DigestContext;

struct KeyInfoFree {
  void operator()(PKCS8_PRIV_KEY_INFO* info) const { PKCS8_PRIV_KEY_INFO_free(info); }
};
struct EncryptedKeyFree {
  void operator()(X509_SIG* key) const { X509_SIG_free(key); }
};
using KeyInfo = std::unique_ptr<PKCS8_PRIV_KEY_INFO, KeyInfoFree>;
using EncryptedKey = std::unique_ptr<X509_SIG, EncryptedKeyFree>;

struct PassphraseRequest {
  const PassphraseSource& source;
  bool asked = false;
  std::string problem;
};

// Called by OpenSSL for an encrypted key only: the passphrase is read then, and only then.
int providePassphrase(char* buffer, int size, int /*writing*/, void* data) {
  auto* request = static_cast<PassphraseRequest*>(data);
  request->asked = true;
  Passphrase passphrase;
  if (!passphrase.read(request->source, "Passphrase of the signing key: ", false,
                       request->problem)) {
    return -1;
  }
  const std::string& text = passphrase.text();
  if (text.size() > static_cast<std::size_t>(size)) return -1;  // read() refuses it first
  std::copy(text.begin(), text.end(), buffer);
  return static_cast<int>(text.size());
}

bool memoryBioText(BIO* bio, std::string& text) {
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio, &data);
  if (length <= 0 || data == nullptr) return false;
  text.assign(data, static_cast<size_t>(length));
  return true;
}

}  // namespace

bool generateKey(PrivateKey& key, std::string& error) {
  PrivateKey fresh(EVP_EC_gen("P-256"));
  if (!fresh) {
    error = "key_generation_failed";
    return false;
  }
  key = std::move(fresh);
  return true;
}

bool loadPrivateKey(const std::filesystem::path& file, const PassphraseSource& source,
                    LoadedKey& loaded, std::string& problem) {
  std::string pem;
  if (!readSecretFile(file, pem, loaded.mode, problem)) return false;
  Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  PassphraseRequest request{source, false, {}};
  loaded.key.reset(bio && !pem.empty()
                       ? PEM_read_bio_PrivateKey(bio.get(), nullptr, providePassphrase, &request)
                       : nullptr);
  wipe(pem);
  loaded.encrypted = request.asked;
  if (!loaded.key) {
    problem = !request.asked            ? "not a PEM private key"
              : request.problem.empty() ? "the passphrase does not decrypt this key"
                                        : "encrypted, and " + request.problem;
    return false;
  }
  return true;
}

namespace {

bool writeEncrypted(BIO* bio, EVP_PKEY* key, const std::string& passphrase) {
  const KeyInfo info(EVP_PKEY2PKCS8(key));
  // A salt of its own; a nid of -1 asks for PBES2 with the cipher given, and HMAC-SHA256.
  const EncryptedKey encrypted(info ? PKCS8_encrypt_ex(-1, EVP_aes_256_cbc(), passphrase.data(),
                                                       static_cast<int>(passphrase.size()), nullptr,
                                                       16, kKeyEncryptionIterations, info.get(),
                                                       nullptr, nullptr)
                                    : nullptr);
  return encrypted && PEM_write_bio_PKCS8(bio, encrypted.get()) == 1;
}

}  // namespace

bool privateKeyPem(EVP_PKEY* key, const std::string* passphrase, std::string& pem,
                   std::string& error) {
  Bio bio(BIO_new(BIO_s_mem()));
  const bool written =
      bio && (passphrase != nullptr ? writeEncrypted(bio.get(), key, *passphrase)
                                    : PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0,
                                                               nullptr, nullptr) == 1);
  if (!written || !memoryBioText(bio.get(), pem)) {
    error = "pem_encoding_failed";
    return false;
  }
  return true;
}

bool publicKeyPem(EVP_PKEY* key, std::string& pem, std::string& error) {
  Bio bio(BIO_new(BIO_s_mem()));
  if (!bio || PEM_write_bio_PUBKEY(bio.get(), key) != 1 || !memoryBioText(bio.get(), pem)) {
    error = "pem_encoding_failed";
    return false;
  }
  return true;
}

bool signSha256(EVP_PKEY* key, std::string_view bytes, std::string& signatureHex,
                std::string& error) {
  DigestContext context(EVP_MD_CTX_new());
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  size_t length = 0;
  std::vector<unsigned char> signature;
  bool ok = context &&
            EVP_DigestSignInit(context.get(), nullptr, EVP_sha256(), nullptr, key) == 1 &&
            EVP_DigestSign(context.get(), nullptr, &length, data, bytes.size()) == 1;
  if (ok) {
    signature.resize(length);
    ok = EVP_DigestSign(context.get(), signature.data(), &length, data, bytes.size()) == 1;
    signature.resize(length);
  }
  if (!ok || signature.empty()) {
    error = "key_cannot_sign";
    return false;
  }
  signatureHex = hexOf(signature);
  return true;
}

bool verifiesSha256(const std::string& publicPem, std::string_view bytes,
                    const std::string& signatureHex) {
  struct BufferFree {
    void operator()(unsigned char* buffer) const { OPENSSL_free(buffer); }
  };
  long length = 0;
  const std::unique_ptr<unsigned char, BufferFree> signature(
      OPENSSL_hexstr2buf(signatureHex.c_str(), &length));
  Bio bio(BIO_new_mem_buf(publicPem.data(), static_cast<int>(publicPem.size())));
  const PrivateKey key(bio ? PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr) : nullptr);
  DigestContext context(EVP_MD_CTX_new());
  return signature && key && context &&
         EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, key.get()) == 1 &&
         EVP_DigestVerify(context.get(), signature.get(), static_cast<size_t>(length),
                          reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()) == 1;
}

std::string hexOf(const std::vector<unsigned char>& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const unsigned char b : bytes) {
    text.push_back(kDigits[b >> 4]);
    text.push_back(kDigits[b & 0x0f]);
  }
  return text;
}

}  // namespace th::publish
