#pragma once
// The passphrase of an encrypted signing key: from a file, from an environment variable, or asked
// on the terminal without echo. It is never printed, logged or stored, and is wiped from memory
// when it goes.

#include <cstddef>
#include <filesystem>
#include <string>

namespace th::publish {

// Where the passphrase comes from; both empty: the terminal. A token's PIN is read by the same
// rules, under its own name and options (--pin-file, --pin-env).
struct PassphraseSource {
  std::filesystem::path file;         // --passphrase-file
  std::string variable;               // --passphrase-env
  std::string noun = "passphrase";    // what messages call it
  std::string option = "passphrase";  // its options' stem
};

// OpenSSL hands a key's reader no more than this.
constexpr std::size_t kMaxPassphraseBytes = 1024;

class Passphrase {
 public:
  Passphrase() = default;
  ~Passphrase();
  Passphrase(const Passphrase&) = delete;
  Passphrase& operator=(const Passphrase&) = delete;

  const std::string& text() const { return text_; }

  // Reads it from `source`; on the terminal `prompt` is shown, and with `confirm` the passphrase is
  // asked twice. One rule whichever way it comes, so that the same passphrase opens the key: it
  // is one line, of at most kMaxPassphraseBytes bytes, and one line end ("\n" or "\r\n") after
  // it is not part of it. On failure `problem` says why (never quoting the passphrase).
  bool read(const PassphraseSource& source, const std::string& prompt, bool confirm,
            std::string& problem);

 private:
  std::string text_;
};

}  // namespace th::publish
