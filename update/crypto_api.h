#pragma once
// The part of libcrypto the engine uses, loaded on the first digest or signature check (see
// `update/dynamic_library.h`): nothing needs it before the update job starts.

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <memory>

namespace th::update {

struct CryptoApi {
  decltype(&::EVP_MD_fetch) mdFetch;
  decltype(&::EVP_sha256) sha256;
  decltype(&::EVP_MD_CTX_new) contextNew;
  decltype(&::EVP_MD_CTX_free) contextFree;
  decltype(&::EVP_DigestInit_ex) digestInit;
  decltype(&::EVP_DigestUpdate) digestUpdate;
  decltype(&::EVP_DigestFinal_ex) digestFinal;
  decltype(&::EVP_DigestVerifyInit) verifyInit;
  decltype(&::EVP_DigestVerifyUpdate) verifyUpdate;
  decltype(&::EVP_DigestVerifyFinal) verifyFinal;
  decltype(&::BIO_new_mem_buf) memoryBio;
  decltype(&::BIO_free) bioFree;
  decltype(&::PEM_read_bio_PUBKEY) readPublicKey;
  decltype(&::EVP_PKEY_free) keyFree;
};

// Null when libcrypto cannot be loaded: digests are then empty and no signature holds.
const CryptoApi* crypto();

// Owners that release through the loaded library; only made from objects it returned.
struct LoadedBioFree {
  void operator()(BIO* bio) const { crypto()->bioFree(bio); }
};
struct LoadedKeyFree {
  void operator()(EVP_PKEY* key) const { crypto()->keyFree(key); }
};
struct LoadedContextFree {
  void operator()(EVP_MD_CTX* context) const { crypto()->contextFree(context); }
};
using LoadedBio = std::unique_ptr<BIO, LoadedBioFree>;
using LoadedKey = std::unique_ptr<EVP_PKEY, LoadedKeyFree>;
using LoadedDigestContext = std::unique_ptr<EVP_MD_CTX, LoadedContextFree>;

}  // namespace th::update
