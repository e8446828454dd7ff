#include "update/crypto_api.h"

#include <optional>

#include "update/dynamic_library.h"

namespace th::update {
namespace {

std::optional<CryptoApi> loadCrypto() {
  void* library = loadLibrary("libcrypto.so.3");
  CryptoApi api{};
  const bool complete = resolve(library, "EVP_MD_fetch", api.mdFetch) &&
                        resolve(library, "EVP_sha256", api.sha256) &&
                        resolve(library, "EVP_MD_CTX_new", api.contextNew) &&
                        resolve(library, "EVP_MD_CTX_free", api.contextFree) &&
                        resolve(library, "EVP_DigestInit_ex", api.digestInit) &&
                        resolve(library, "EVP_DigestUpdate", api.digestUpdate) &&
                        resolve(library, "EVP_DigestFinal_ex", api.digestFinal) &&
                        resolve(library, "EVP_DigestVerifyInit", api.verifyInit) &&
                        resolve(library, "EVP_DigestVerifyUpdate", api.verifyUpdate) &&
                        resolve(library, "EVP_DigestVerifyFinal", api.verifyFinal) &&
                        resolve(library, "BIO_new_mem_buf", api.memoryBio) &&
                        resolve(library, "BIO_free", api.bioFree) &&
                        resolve(library, "PEM_read_bio_PUBKEY", api.readPublicKey) &&
                        resolve(library, "EVP_PKEY_free", api.keyFree);
  if (!complete) return std::nullopt;
  return api;
}

}  // namespace

const CryptoApi* crypto() {
  static const std::optional<CryptoApi> api = loadCrypto();
  return api ? &*api : nullptr;
}

}  // namespace th::update
