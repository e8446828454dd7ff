#include "tools/publish/keys/passphrase.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>

#include "tools/publish/keys/secret_file.h"
#include "update/file_descriptor.h"

namespace th::publish {
namespace {

// One trailing line end dropped; empty when the passphrase is fine, else why not.
std::string asOneLine(std::string& text, const std::string& noun) {
  if (text.ends_with('\n')) text.pop_back();
  if (text.ends_with('\r')) text.pop_back();
  if (text.empty()) return "the " + noun + " is empty";
  if (text.find_first_of("\r\n") != std::string::npos)
    return "the " + noun + " is more than one line";
  if (text.size() > kMaxPassphraseBytes) {
    return "the " + noun + " is longer than " + std::to_string(kMaxPassphraseBytes) + " bytes";
  }
  return {};
}

// The terminal's settings while echo is off, for the signal handler to put back.
int gTerminal = -1;
termios gSettings{};
constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

extern "C" void restoreAndDie(int signal) {
  ::tcsetattr(gTerminal, TCSANOW, &gSettings);
  ::raise(signal);  // the default action, reset on entry, once this handler returns
}

// Echo off for its lifetime; the terminal's settings come back on every way out, a signal that
// ends the process included.
class EchoOff {
 public:
  explicit EchoOff(int tty) : tty_(tty) {
    if (::tcgetattr(tty, &gSettings) != 0) return;
    gTerminal = tty;
    struct sigaction action {};
    action.sa_handler = restoreAndDie;
    action.sa_flags = SA_RESETHAND;
    sigemptyset(&action.sa_mask);
    for (std::size_t i = 0; i < kSignals.size(); ++i) {
      ::sigaction(kSignals[i], nullptr, &previous_[i]);
      if (previous_[i].sa_handler != SIG_IGN) ::sigaction(kSignals[i], &action, nullptr);
    }
    termios quiet = gSettings;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    on_ = ::tcsetattr(tty, TCSAFLUSH, &quiet) == 0;
  }
  ~EchoOff() {
    if (gTerminal < 0) return;
    ::tcsetattr(tty_, TCSAFLUSH, &gSettings);
    for (std::size_t i = 0; i < kSignals.size(); ++i)
      ::sigaction(kSignals[i], &previous_[i], nullptr);
    gTerminal = -1;
  }
  EchoOff(const EchoOff&) = delete;
  EchoOff& operator=(const EchoOff&) = delete;
  bool on() const { return on_; }

 private:
  int tty_;
  bool on_ = false;
  std::array<struct sigaction, kSignals.size()> previous_{};
};

// One line from the terminal with echo off; false when there is no terminal. The line is read
// into a buffer of fixed size, wiped afterwards; a longer line is cut one byte past the limit.
bool askTerminal(int tty, const std::string& prompt, std::string& line) {
  if (::write(tty, prompt.data(), prompt.size()) < 0) return false;
  std::array<char, kMaxPassphraseBytes + 1> buffer;
  std::size_t length = 0;
  {
    const EchoOff quiet(tty);
    if (!quiet.on()) return false;
    for (char c; ::read(tty, &c, 1) == 1 && c != '\n';) {
      if (length < buffer.size()) buffer[length++] = c;
    }
  }
  wipe(line);
  line.reserve(buffer.size());
  line.assign(buffer.data(), length);
  OPENSSL_cleanse(buffer.data(), buffer.size());
  return ::write(tty, "\n", 1) == 1;
}

bool fromTerminal(const PassphraseSource& source, const std::string& prompt, bool confirm,
                  std::string& text, std::string& problem) {
  const update::FileDescriptor tty(::open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC));
  std::string again;
  if (tty.get() < 0 || !askTerminal(tty.get(), prompt, text) ||
      (confirm && !askTerminal(tty.get(), "Repeat it: ", again))) {
    problem = "no terminal to ask for the " + source.noun + ": give --" + source.option +
              "-file FILE or --" + source.option + "-env NAME";
    return false;
  }
  const bool same = !confirm || again == text;
  wipe(again);
  if (!same) problem = "the two " + source.noun + "s differ";
  return same;
}

}  // namespace

Passphrase::~Passphrase() { wipe(text_); }

bool Passphrase::read(const PassphraseSource& source, const std::string& prompt, bool confirm,
                      std::string& problem) {
  std::string where;
  if (!source.file.empty()) {
    mode_t mode = 0;
    where = source.file.string() + ": ";
    if (!readSecretFile(source.file, text_, mode, problem)) {
      problem = where + problem;
      return false;
    }
  } else if (!source.variable.empty()) {
    where = "--" + source.option + "-env " + source.variable + ": ";
    const char* value = std::getenv(source.variable.c_str());
    if (value == nullptr) {
      problem = where + "no such variable";
      return false;
    }
    text_ = value;
  } else {
    if (!fromTerminal(source, prompt, confirm, text_, problem)) return false;
  }
  if (const std::string wrong = asOneLine(text_, source.noun); !wrong.empty())
    problem = where + wrong;
  return problem.empty();
}

}  // namespace th::publish
