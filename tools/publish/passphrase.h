#pragma once
// The passphrase of an encrypted signing key: from a file's first line, from an environment
// variable, or asked on the terminal without echo. It is never printed, logged or stored, and is
// wiped from memory when it goes.

#include <filesystem>
#include <string>

namespace th::publish {

// Where the passphrase comes from; both empty: the terminal.
struct PassphraseSource {
  std::filesystem::path file;  // --passphrase-file
  std::string variable;        // --passphrase-env
};

class Passphrase {
 public:
  Passphrase() = default;
  ~Passphrase();
  Passphrase(const Passphrase&) = delete;
  Passphrase& operator=(const Passphrase&) = delete;

  const std::string& text() const { return text_; }

  // Reads it from `source`; on the terminal `prompt` is shown, and with `confirm` the passphrase is
  // asked twice. On failure `problem` says why (never quoting the passphrase).
  bool read(const PassphraseSource& source, const std::string& prompt, bool confirm,
            std::string& problem);

 private:
  std::string text_;
};

}  // namespace th::publish
