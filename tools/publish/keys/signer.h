#pragma once
// What signs a release, a key file or a key in a token, behind one face, so that the commands
// that sign need not tell them apart.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tools/publish/options.h"

namespace th::publish {

class Signer {
 public:
  virtual ~Signer() = default;

  // The key in messages: the file's path, or "token 'X' key 'K'".
  const std::string& name() const { return name_; }
  // The public half as PEM SubjectPublicKeyInfo, the bytes the launcher's fingerprint is taken
  // over.
  const std::string& publicPem() const { return publicPem_; }
  // SHA-256 under the key type's scheme (RSA: PKCS #1 v1.5, EC: ECDSA with a DER signature), as
  // lower-case hex.
  virtual bool sign(std::string_view bytes, std::string& signatureHex,
                    std::string& error) const = 0;

 protected:
  std::string name_, publicPem_;
};

// Opens the key `options` name (asking for a passphrase or PIN as they say) and reads its public
// half; null on failure, with `problems` saying why, the key named. A key file in the clear is
// warned about, or refused when others may open it.
std::unique_ptr<Signer> openSigner(const SigningKeyOptions& options,
                                   std::vector<std::string>& problems,
                                   std::vector<std::string>& warnings);

}  // namespace th::publish
