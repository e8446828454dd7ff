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
