#pragma once
// A signing key pair in a hardware token, used through the token's PKCS#11 module: the private
// half signs inside the token and never leaves it.

#include <memory>
#include <string>
#include <string_view>

#include "tools/publish/options.h"

namespace th::publish {

class TokenKey {
 public:
  TokenKey();
  ~TokenKey();
  TokenKey(const TokenKey&) = delete;
  TokenKey& operator=(const TokenKey&) = delete;

  // Loads the module, logs in to the token and finds the pair labelled `name.keyLabel`. On
  // failure `problem` names what was given: the module that "cannot be loaded", "no token
  // labelled 'X'", "the PIN is not accepted by token 'X'", "token 'X' holds no key labelled
  // 'K'", or a key that is neither EC P-256 nor RSA.
  bool open(const TokenKeyName& name, std::string& problem);

  // The public half as PEM SubjectPublicKeyInfo, the bytes the launcher's fingerprint is taken
  // over (as publicKeyPem gives them for a key file).
  const std::string& publicPem() const;

  // A SHA-256 signature as lower-case hex, as signSha256 makes one: RSA PKCS #1 v1.5, or ECDSA
  // (the token's raw r||s made DER). Error: "token_cannot_sign: " and the module's reason.
  bool sign(std::string_view bytes, std::string& signatureHex, std::string& error) const;

 private:
  struct Opened;
  std::unique_ptr<Opened> opened_;
};

// Makes a key pair in the token, labelled `name.keyLabel` (EC P-256, or RSA 3072 with `rsa`),
// the private half sensitive and never extractable, and gives its public half as TokenKey does.
// Refuses a label the token already holds: "token 'X' already holds a key labelled 'K'".
bool generateTokenKeyPair(const TokenKeyName& name, bool rsa, std::string& publicPem,
                          std::string& problem);

}  // namespace th::publish
