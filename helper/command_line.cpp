#include "helper/command_line.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <string_view>

namespace th::helper {
namespace {

bool parsePid(std::string_view text, pid_t& pid) {
  pid_t value = 0;
  const auto [end, result] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (result != std::errc() || end != text.data() + text.size() || value <= 0) return false;
  pid = value;
  return true;
}

}  // namespace

std::string usageText() {
  return "usage: tarn-hollow-update-helper --wait-pid PID --replace STAGED --target TARGET "
         "--relaunch PROGRAM\n";
}

std::string helpText() {
  return "tarn-hollow-update-helper swaps a new launcher into a Tarn Hollow install. The launcher\n"
         "starts it when an update brings a new tarn-hollow-launcher, and quits; the helper waits\n"
         "for it to end, puts the new file in place (the old one kept in .tarnhollow-update), and\n"
         "starts the launcher again. Players need not run it themselves.\n\n" +
         usageText() + "       tarn-hollow-update-helper --help | --version\n";
}

std::string versionText() { return std::string("tarn-hollow-update-helper ") + TH_VERSION + "\n"; }

Request requestOf(int argc, const char* const* argv) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (word == "--help" || word == "-h") return Request::Help;
    if (word == "--version") return Request::Version;
  }
  return Request::HandOff;
}

bool parseCommandLine(int argc, const char* const* argv, HelperOptions& options,
                      std::string& error) {
  static const std::string_view kNames[] = {"--wait-pid", "--replace", "--target", "--relaunch"};
  std::map<std::string_view, std::string_view> values;
  for (int i = 1; i < argc; i += 2) {
    const std::string_view name = argv[i];
    if (std::find(std::begin(kNames), std::end(kNames), name) == std::end(kNames)) {
      error = "unknown argument '" + std::string(name) + "'";
      return false;
    }
    if (i + 1 >= argc || std::string_view(argv[i + 1]).empty()) {
      error = "missing value for " + std::string(name);
      return false;
    }
    if (!values.emplace(name, argv[i + 1]).second) {
      error = "repeated " + std::string(name);
      return false;
    }
  }
  for (const std::string_view name : kNames) {
    if (values.count(name) == 0) {
      error = "missing " + std::string(name);
      return false;
    }
  }
  HelperOptions parsed;
  if (!parsePid(values["--wait-pid"], parsed.waitPid)) {
    error =
        "--wait-pid needs a positive process id, not '" + std::string(values["--wait-pid"]) + "'";
    return false;
  }
  parsed.staged = values["--replace"];
  parsed.target = values["--target"];
  parsed.relaunch = values["--relaunch"];
  options = parsed;
  return true;
}

}  // namespace th::helper
