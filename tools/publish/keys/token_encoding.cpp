#include "tools/publish/keys/token_encoding.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/param_build.h>

#include <memory>

#include "tools/publish/keys/keys.h"

namespace th::publish {
namespace {

// Frees an OpenSSL object with the library's own function for its type.
template <auto Free>
struct Freed {
  template <typename Object>
  void operator()(Object* object) const {
    Free(object);
  }
};
using ParamBuilder = std::unique_ptr<OSSL_PARAM_BLD, Freed<OSSL_PARAM_BLD_free>>;
using Params = std::unique_ptr<OSSL_PARAM, Freed<OSSL_PARAM_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Freed<EVP_PKEY_CTX_free>>;
using Number = std::unique_ptr<BIGNUM, Freed<BN_free>>;
using Signature = std::unique_ptr<ECDSA_SIG, Freed<ECDSA_SIG_free>>;

Number numberOf(const Bytes& bigEndian) {
  return Number(BN_bin2bn(bigEndian.data(), static_cast<int>(bigEndian.size()), nullptr));
}

// The public key that `build` describes to the algorithm `type`, as PEM.
template <typename Build>
bool publicPemFrom(const char* type, Build build, std::string& pem) {
  const ParamBuilder builder(OSSL_PARAM_BLD_new());
  if (!builder || !build(builder.get())) return false;
  const Params parts(OSSL_PARAM_BLD_to_param(builder.get()));
  const KeyContext context(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
  EVP_PKEY* made = nullptr;
  if (!parts || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
      EVP_PKEY_fromdata(context.get(), &made, EVP_PKEY_PUBLIC_KEY, parts.get()) != 1) {
    return false;
  }
  const PrivateKey key(made);
  std::string error;
  return publicKeyPem(key.get(), pem, error);
}

// The uncompressed point (0x04, x, y) of P-256, taken out of its DER OCTET STRING if wrapped.
bool bareP256Point(const Bytes& point, Bytes& bare) {
  constexpr size_t kLength = 65;
  if (point.size() == kLength + 2 && point[0] == 0x04 && point[1] == kLength) {
    bare.assign(point.begin() + 2, point.end());
  } else {
    bare = point;
  }
  return bare.size() == kLength && bare[0] == 0x04;
}

}  // namespace

const Bytes kP256Parameters = {0x06, 0x08, 0x2a, 0x86, 0x48, 0xce, 0x3d, 0x03, 0x01, 0x07};

bool rsaPublicPem(const Bytes& modulus, const Bytes& exponent, std::string& pem) {
  const Number n = numberOf(modulus), e = numberOf(exponent);
  return n && e &&
         publicPemFrom(
             "RSA",
             [&](OSSL_PARAM_BLD* builder) {
               return OSSL_PARAM_BLD_push_BN(builder, OSSL_PKEY_PARAM_RSA_N, n.get()) == 1 &&
                      OSSL_PARAM_BLD_push_BN(builder, OSSL_PKEY_PARAM_RSA_E, e.get()) == 1;
             },
             pem);
}

bool p256PublicPem(const Bytes& parameters, const Bytes& point, std::string& pem) {
  Bytes bare;
  if (parameters != kP256Parameters || !bareP256Point(point, bare)) return false;
  return publicPemFrom(
      "EC",
      [&](OSSL_PARAM_BLD* builder) {
        return OSSL_PARAM_BLD_push_utf8_string(builder, OSSL_PKEY_PARAM_GROUP_NAME, "prime256v1",
                                               0) == 1 &&
               OSSL_PARAM_BLD_push_octet_string(builder, OSSL_PKEY_PARAM_PUB_KEY, bare.data(),
                                                bare.size()) == 1;
      },
      pem);
}

bool ecdsaDer(const Bytes& raw, Bytes& der) {
  const size_t half = raw.size() / 2;
  if (raw.empty() || raw.size() % 2 != 0) return false;
  Number r(BN_bin2bn(raw.data(), static_cast<int>(half), nullptr));
  Number s(BN_bin2bn(raw.data() + half, static_cast<int>(half), nullptr));
  const Signature signature(ECDSA_SIG_new());
  if (!r || !s || !signature || ECDSA_SIG_set0(signature.get(), r.get(), s.get()) != 1) {
    return false;
  }
  r.release();  // the signature owns them now
  s.release();
  const int length = i2d_ECDSA_SIG(signature.get(), nullptr);
  if (length <= 0) return false;
  der.resize(static_cast<size_t>(length));
  unsigned char* out = der.data();
  return i2d_ECDSA_SIG(signature.get(), &out) == length;
}

}  // namespace th::publish
