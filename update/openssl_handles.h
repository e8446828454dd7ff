#pragma once
// Owners of OpenSSL objects, so every path out of a function releases them.

#include <openssl/bio.h>
#include <openssl/evp.h>

#include <memory>

namespace th::update {

struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct KeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct DigestContextFree {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

using Bio = std::unique_ptr<BIO, BioFree>;
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;
using DigestContext = std::unique_ptr<EVP_MD_CTX, DigestContextFree>;

}  // namespace th::update
