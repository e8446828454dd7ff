#pragma once
// The key a release is signed with, judged before anything is published, and the check that a
// signed manifest reads as every launcher will read it.

#include <filesystem>
#include <string>
#include <vector>

#include <memory>

#include "tools/publish/keys/signer.h"
#include "update/manifest.h"

namespace th::publish {

// The key that signs, a key file or a key in a token.
using SigningKey = std::unique_ptr<Signer>;

// Opens the key `options` name (asking for its passphrase or PIN). It must make SHA-256
// signatures that verify with the public half it offers, and that public half must be the key
// this build's engine pins, or the launchers built alongside would refuse every release signed
// with it. Problem lines name the key.
void checkKey(const SigningKeyOptions& options, SigningKey& signing,
              std::vector<std::string>& problems, std::vector<std::string>& warnings);

// The launcher trims only blanks and line ends off the end of a signature; so does this.
void trimSignatureEnd(std::string& signature);

// The manifest text as the launcher's parser reads it must be `intended`; false with a problem
// line when it cannot be read or would be misread.
bool readsAsIntended(const std::string& json, const update::Manifest& intended,
                     std::vector<std::string>& problems);

// Reads the signed manifest back the way every launcher will, with `publicPem` as the install's
// key file written into `folder` for the check and removed again: the signature must verify,
// the launcher's parser must read it, and what it reads must be `intended`.
void checkAsLaunchersRead(const std::string& json, const std::string& signature,
                          const std::string& publicPem, const std::filesystem::path& folder,
                          const update::Manifest& intended, std::vector<std::string>& problems);

// The public key that releases are checked with where no private key is: the key file `given`,
// or with none the key built into this variant. It must be the key this build pins. On failure a
// problem line names the file and why.
bool pinnedPublicKey(const std::filesystem::path& given, std::string& pem,
                     std::vector<std::string>& problems);

}  // namespace th::publish
