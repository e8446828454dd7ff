#pragma once
// The command lines of tarn-hollow-publish's commands.

#include <filesystem>
#include <string>
#include <vector>

#include "tools/publish/keys/passphrase.h"
#include "tools/publish/release/transfer_limit.h"

namespace th::publish {

// A key pair in a hardware token, found through its PKCS#11 module by the token's label and the
// key's; all three given, or none.
struct TokenKeyName {
  std::filesystem::path module;                // --pkcs11-module
  std::string token;                           // --token
  std::string keyLabel;                        // --key-label
  PassphraseSource pin{{}, {}, "PIN", "pin"};  // --pin-file, --pin-env, else the terminal
  bool given() const { return !module.empty(); }
};

// The key that signs: a PEM file, or a key in a token.
struct SigningKeyOptions {
  std::filesystem::path file;   // --key
  PassphraseSource passphrase;  // asked for only when the file is encrypted
  TokenKeyName token;
};

struct KeygenOptions {
  std::filesystem::path out;
  PassphraseSource passphrase;  // for the private key; the terminal unless given
  bool unencrypted = false;     // a throw-away key, written in the clear
  TokenKeyName token;           // given: the pair is made in the token, only the public half here
  bool rsa = false;             // a token's key: RSA 3072 instead of EC P-256
};

struct ReleaseOptions {
  std::filesystem::path from;
  std::string version;
  SigningKeyOptions key;
  std::filesystem::path serverRoot;
  std::string channel = "stable";
  std::string platform = "linux";
  std::filesystem::path notes;    // empty: no release notes
  std::filesystem::path package;  // the game package new players install; empty: not compared
  bool mandatory = false;
  bool belowFreshInstall = false;  // a version below what an install without a marker counts as
  std::string revertTo;            // revert: the kept release whose files are published again
  std::string minimumOnlineVersion;
  std::string protocolVersion = "0";  // checked with the other values, see publish_release.h
  std::string keep = "3";             // releases kept on the server, the current one included;
                                      // a whole number from 1, checked when parsed
  bool wait = true;                   // for another release of the channel and platform to finish
  double slowestLinkMbit = kDefaultSlowestLinkMbit;  // every file must reach players on it
  std::filesystem::path prepared;   // prepare: the folder it writes; sign, publish: the one read
  std::string servedUrl;            // prepare: the server, to judge the release by what it serves
  std::filesystem::path publicKey;  // publish: the key the signature is checked with; empty: the
                                    // one built in
};

struct VerifyOptions {
  std::string url;
  std::string channel = "stable";
  std::string platform = "linux";
  std::filesystem::path publicKey;  // empty: the key built into the tool
  bool strict = false;  // caching that lets a shared cache serve stale fails, as do files too
                        // large for the slowest link
  double slowestLinkMbit = kDefaultSlowestLinkMbit;
};

// `args` are the words after the command name. On failure `error` says what is wrong.
bool parseKeygenOptions(const std::vector<std::string>& args, KeygenOptions& options,
                        std::string& error);
// release, revert ("--to" is the kept release, "--as" the new version; `from` stays empty),
// prepare, sign and publish.
bool parsePublishingOptions(const std::string& command, const std::vector<std::string>& args,
                            ReleaseOptions& options, std::string& error);
bool parseVerifyOptions(const std::vector<std::string>& args, VerifyOptions& options,
                        std::string& error);

// True when the words after `command` ask for help: "--help" or "-h" where an option's name
// stands, not as an option's value.
bool asksForHelp(const std::string& command, const std::vector<std::string>& args);

}  // namespace th::publish
