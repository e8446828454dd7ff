#include "tools/publish/passphrase.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>

#include "update/file_descriptor.h"
#include "update/text_file.h"

namespace th::publish {
namespace {

void wipe(std::string& text) {
  OPENSSL_cleanse(text.data(), text.size());
  text.clear();
}

// The text up to the first line end; the rest of `text` is wiped.
std::string firstLine(std::string& text) {
  std::string line = text.substr(0, text.find_first_of("\r\n"));
  wipe(text);
  return line;
}

// One line from the terminal with echo off; false when there is no terminal.
bool askTerminal(int tty, const std::string& prompt, std::string& line) {
  termios saved{};
  if (::tcgetattr(tty, &saved) != 0) return false;
  termios quiet = saved;
  quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  if (::write(tty, prompt.data(), prompt.size()) < 0 || ::tcsetattr(tty, TCSAFLUSH, &quiet) != 0) {
    return false;
  }
  line.clear();
  for (char c; ::read(tty, &c, 1) == 1 && c != '\n';) line += c;
  ::tcsetattr(tty, TCSAFLUSH, &saved);
  return ::write(tty, "\n", 1) == 1;
}

bool fromTerminal(const std::string& prompt, bool confirm, std::string& text,
                  std::string& problem) {
  const update::FileDescriptor tty(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
  std::string again;
  if (tty.get() < 0 || !askTerminal(tty.get(), prompt, text) ||
      (confirm && !askTerminal(tty.get(), "Repeat it: ", again))) {
    problem =
        "no terminal to ask for the passphrase: give --passphrase-file FILE or "
        "--passphrase-env NAME";
    return false;
  }
  const bool same = !confirm || again == text;
  wipe(again);
  if (!same) problem = "the two passphrases differ";
  return same;
}

}  // namespace

Passphrase::~Passphrase() { wipe(text_); }

bool Passphrase::read(const PassphraseSource& source, const std::string& prompt, bool confirm,
                      std::string& problem) {
  if (!source.file.empty()) {
    std::string bytes = update::readTextFile(source.file);
    text_ = firstLine(bytes);
    if (text_.empty()) problem = source.file.string() + ": holds no passphrase";
  } else if (!source.variable.empty()) {
    const char* value = std::getenv(source.variable.c_str());
    text_ = value != nullptr ? value : "";
    if (text_.empty())
      problem = "--passphrase-env " + source.variable + ": no such variable, or empty";
  } else if (fromTerminal(prompt, confirm, text_, problem) && text_.empty()) {
    problem = "an empty passphrase";
  }
  return problem.empty();
}

}  // namespace th::publish
