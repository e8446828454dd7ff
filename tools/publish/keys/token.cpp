#include "tools/publish/keys/token.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include "tools/publish/keys/keys.h"
#include "tools/publish/keys/pkcs11_session.h"
#include "tools/publish/keys/token_encoding.h"

namespace th::publish {
namespace {

bool openToken(const TokenKeyName& name, bool readWrite, Pkcs11Module& module,
               Pkcs11Session& session, std::string& problem) {
  return module.load(name.module, problem) &&
         session.open(module, name.token, name.pin, readWrite, problem);
}

// The PEM of the public key object `object`; false when it is neither EC P-256 nor RSA.
bool readPublicPem(const Pkcs11Session& session, ck_object_handle_t object, bool& ec,
                   std::string& pem) {
  Bytes first, second;
  ec = session.attribute(object, CKA_EC_PARAMS, first);
  if (ec)
    return session.attribute(object, CKA_EC_POINT, second) && p256PublicPem(first, second, pem);
  return session.attribute(object, CKA_MODULUS, first) &&
         session.attribute(object, CKA_PUBLIC_EXPONENT, second) && rsaPublicPem(first, second, pem);
}

std::string tokenNamed(const TokenKeyName& name) { return "token '" + name.token + "'"; }

// The token's own ECDSA signs a digest, not the bytes.
Bytes sha256Of(std::string_view bytes) {
  Bytes digest(EVP_MAX_MD_SIZE);
  unsigned int length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1)
    length = 0;
  digest.resize(length);
  return digest;
}

// The attributes of a new key pair, and the values they point to.
struct PairTemplates {
  PairTemplates(const std::string& keyLabel, bool rsa);
  PairTemplates(const PairTemplates&) = delete;
  PairTemplates& operator=(const PairTemplates&) = delete;

  unsigned char yes = 1, no = 0, id[16] = {}, exponent[3] = {1, 0, 1};
  unsigned long bits = 3072;
  std::string label;
  Bytes curve = kP256Parameters;
  std::vector<ck_attribute> publicHalf, privateHalf;
};

PairTemplates::PairTemplates(const std::string& keyLabel, bool rsa) : label(keyLabel) {
  RAND_bytes(id, sizeof id);  // ties the two halves together, as tools look them up
  publicHalf = {{CKA_TOKEN, &yes, 1},
                {CKA_VERIFY, &yes, 1},
                {CKA_LABEL, label.data(), label.size()},
                {CKA_ID, id, sizeof id}};
  if (rsa) {
    publicHalf.push_back({CKA_MODULUS_BITS, &bits, sizeof bits});
    publicHalf.push_back({CKA_PUBLIC_EXPONENT, exponent, sizeof exponent});
  } else {
    publicHalf.push_back({CKA_EC_PARAMS, curve.data(), curve.size()});
  }
  // Sensitive and never extractable: the private half cannot be read out of the token, not even
  // by whoever knows the PIN.
  privateHalf = {{CKA_TOKEN, &yes, 1},     {CKA_PRIVATE, &yes, 1},
                 {CKA_SENSITIVE, &yes, 1}, {CKA_EXTRACTABLE, &no, 1},
                 {CKA_SIGN, &yes, 1},      {CKA_LABEL, label.data(), label.size()},
                 {CKA_ID, id, sizeof id}};
}

}  // namespace

struct TokenKey::Opened {
  Pkcs11Module module;  // outlives the session, declared first
  Pkcs11Session session;
  ck_object_handle_t privateKey = CK_INVALID_HANDLE;
  bool ec = false;
  std::string publicPem;
};

TokenKey::TokenKey() = default;
TokenKey::~TokenKey() = default;

bool TokenKey::open(const TokenKeyName& name, std::string& problem) {
  auto opened = std::make_unique<Opened>();
  if (!openToken(name, false, opened->module, opened->session, problem)) return false;
  const std::string label = "labelled '" + name.keyLabel + "'";
  const auto privates = opened->session.find(CKO_PRIVATE_KEY, name.keyLabel);
  const auto publics = opened->session.find(CKO_PUBLIC_KEY, name.keyLabel);
  if (privates.empty()) {
    problem = tokenNamed(name) + " holds no key " + label;
  } else if (privates.size() > 1 || publics.size() > 1) {
    problem = tokenNamed(name) + " holds more than one key " + label;
  } else if (publics.empty()) {
    problem = tokenNamed(name) + " holds no public key " + label + " beside the private one";
  } else if (!readPublicPem(opened->session, publics[0], opened->ec, opened->publicPem)) {
    problem = tokenNamed(name) + ": the key " + label + " is neither EC P-256 nor RSA";
  }
  if (!problem.empty()) return false;
  opened->privateKey = privates[0];
  opened_ = std::move(opened);
  return true;
}

const std::string& TokenKey::publicPem() const { return opened_->publicPem; }

bool TokenKey::sign(std::string_view bytes, std::string& signatureHex, std::string& error) const {
  const Bytes input = opened_->ec ? sha256Of(bytes) : Bytes(bytes.begin(), bytes.end());
  ck_mechanism mechanism{opened_->ec ? CKM_ECDSA : CKM_SHA256_RSA_PKCS, nullptr, 0};
  CK_FUNCTION_LIST* f = opened_->session.functions();
  const ck_session_handle_t session = opened_->session.handle();
  unsigned long length = 0;
  Bytes raw, signature;
  ck_rv_t result = f->C_SignInit(session, &mechanism, opened_->privateKey);
  auto* data = const_cast<unsigned char*>(input.data());
  if (result == CKR_OK) result = f->C_Sign(session, data, input.size(), nullptr, &length);
  if (result == CKR_OK) {
    raw.resize(length);
    result = f->C_Sign(session, data, input.size(), raw.data(), &length);
    raw.resize(length);
  }
  if (result == CKR_OK && opened_->ec && !ecdsaDer(raw, signature)) result = CKR_FUNCTION_FAILED;
  if (result != CKR_OK || raw.empty()) {
    error = "token_cannot_sign: " + pkcs11Error(result);
    return false;
  }
  signatureHex = hexOf(opened_->ec ? signature : raw);
  return true;
}

bool generateTokenKeyPair(const TokenKeyName& name, bool rsa, std::string& publicPem,
                          std::string& problem) {
  Pkcs11Module module;
  Pkcs11Session session;
  if (!openToken(name, true, module, session, problem)) return false;
  if (!session.find(CKO_PRIVATE_KEY, name.keyLabel).empty() ||
      !session.find(CKO_PUBLIC_KEY, name.keyLabel).empty()) {
    problem = tokenNamed(name) + " already holds a key labelled '" + name.keyLabel +
              "'; a key is never replaced";
    return false;
  }
  PairTemplates pair(name.keyLabel, rsa);
  ck_mechanism mechanism{rsa ? CKM_RSA_PKCS_KEY_PAIR_GEN : CKM_EC_KEY_PAIR_GEN, nullptr, 0};
  ck_object_handle_t made[2] = {CK_INVALID_HANDLE, CK_INVALID_HANDLE};
  CK_FUNCTION_LIST* f = session.functions();
  const ck_rv_t result = f->C_GenerateKeyPair(session.handle(), &mechanism, pair.publicHalf.data(),
                                              pair.publicHalf.size(), pair.privateHalf.data(),
                                              pair.privateHalf.size(), &made[0], &made[1]);
  bool ec = false;
  if (result != CKR_OK) {
    problem = tokenNamed(name) + ": the key pair cannot be made: " + pkcs11Error(result);
  } else if (!readPublicPem(session, made[0], ec, publicPem)) {
    for (const ck_object_handle_t half : made) f->C_DestroyObject(session.handle(), half);
    problem = tokenNamed(name) + ": the new key's public half cannot be read";
  }
  return problem.empty();
}

}  // namespace th::publish
