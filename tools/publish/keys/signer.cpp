#include "tools/publish/keys/signer.h"

#include <cstdio>

#include "tools/publish/keys/keys.h"
#include "tools/publish/keys/token.h"

namespace th::publish {
namespace {

using Problems = std::vector<std::string>;

class FileSigner : public Signer {
 public:
  bool open(const SigningKeyOptions& options, Problems& problems, Problems& warnings);
  bool sign(std::string_view bytes, std::string& signatureHex, std::string& error) const override {
    return signSha256(loaded_.key.get(), bytes, signatureHex, error);
  }

 private:
  LoadedKey loaded_;
};

// A key in the clear signs for whoever reads the file: it may be open to its owner alone.
void judgeKeyFile(const std::string& file, const LoadedKey& loaded, Problems& problems,
                  Problems& warnings) {
  if (loaded.encrypted) return;
  if ((loaded.mode & 077) != 0) {
    char mode[16];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(loaded.mode & 07777));
    problems.push_back(file + ": a key in the clear that group or others may open (mode " + mode +
                       "); chmod 600 it, or better, encrypt it");
  } else {
    warnings.push_back(file +
                       ": the signing key is not encrypted; anyone who reads the file can sign "
                       "releases");
  }
}

bool FileSigner::open(const SigningKeyOptions& options, Problems& problems, Problems& warnings) {
  std::string error;
  name_ = options.file.string();
  if (!loadPrivateKey(options.file, options.passphrase, loaded_, error)) {
    problems.push_back(name_ + ": " + error);
    return false;
  }
  judgeKeyFile(name_, loaded_, problems, warnings);
  if (!publicKeyPem(loaded_.key.get(), publicPem_, error)) {
    problems.push_back(name_ + ": its public key cannot be encoded");
    return false;
  }
  return true;
}

class TokenSigner : public Signer {
 public:
  bool open(const TokenKeyName& token, Problems& problems) {
    std::string problem;
    name_ = "token '" + token.token + "' key '" + token.keyLabel + "'";
    if (!key_.open(token, problem)) {
      problems.push_back(problem);
      return false;
    }
    publicPem_ = key_.publicPem();
    return true;
  }
  bool sign(std::string_view bytes, std::string& signatureHex, std::string& error) const override {
    return key_.sign(bytes, signatureHex, error);
  }

 private:
  TokenKey key_;
};

}  // namespace

std::unique_ptr<Signer> openSigner(const SigningKeyOptions& options, Problems& problems,
                                   Problems& warnings) {
  if (options.token.given()) {
    auto token = std::make_unique<TokenSigner>();
    if (token->open(options.token, problems)) return token;
    return nullptr;
  }
  auto file = std::make_unique<FileSigner>();
  if (file->open(options, problems, warnings)) return file;
  return nullptr;
}

}  // namespace th::publish
