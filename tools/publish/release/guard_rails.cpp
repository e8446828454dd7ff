#include "tools/publish/release/guard_rails.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <iterator>
#include <system_error>

#include "tools/publish/release/manifest_json.h"
#include "tools/publish/release/player_reach.h"
#include "tools/publish/release/release_scan.h"
#include "tools/publish/release/transfer_limit.h"

namespace th::publish {
namespace fs = std::filesystem;
namespace {

using Problems = std::vector<std::string>;

bool smallNumber(std::string_view digits) {
  int value = 0;
  const auto [end, result] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return !digits.empty() && result == std::errc() && end == digits.data() + digits.size() &&
         std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Digits separated by single dots, each part small enough that the launcher orders it right.
bool dottedNumber(std::string_view text) {
  for (size_t start = 0;;) {
    const size_t dot = text.find('.', start);
    if (!smallNumber(text.substr(start, dot - start))) return false;
    if (dot == std::string_view::npos) return true;
    start = dot + 1;
  }
}

// Channel and platform become folder names on the server and parts of the launcher's URLs; a
// leading dot is left to the server's own folders (the stored releases).
bool plainName(const std::string& name) {
  return !name.empty() && name.front() != '.' && std::all_of(name.begin(), name.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '_' || c == '-';
  });
}

bool serverRootInsideRelease(const ReleaseOptions& options) {
  if (options.serverRoot.empty()) return false;  // preparing: no server here
  std::error_code error;
  const fs::path root = fs::weakly_canonical(options.serverRoot, error);
  const fs::path release = fs::weakly_canonical(options.from, error);
  return isWithin(root, release);
}

// Reads `file` whole into `text`; empty on success, else why it cannot be read.
std::string unreadableFile(const fs::path& file, std::string& text) {
  std::error_code error;
  if (fs::is_directory(file, error)) return "a folder, not a file";
  std::ifstream in(file, std::ios::binary);
  if (!in) return std::strerror(errno);
  text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return in.bad() ? std::strerror(errno) : "";
}

void checkValues(const ReleaseOptions& options, Problems& problems) {
  if (!dottedNumber(options.version)) {
    const std::string option = options.revertTo.empty() ? "--version" : "--as";
    problems.push_back(option + " '" + options.version + "' is not a dotted number like 1.4.2");
  }
  if (!options.minimumOnlineVersion.empty() && !dottedNumber(options.minimumOnlineVersion)) {
    problems.push_back("--minimum-online-version '" + options.minimumOnlineVersion +
                       "' is not a dotted number like 1.4.0");
  }
  if (!smallNumber(options.protocolVersion)) {
    problems.push_back("--protocol-version '" + options.protocolVersion +
                       "' is not a whole number from 0 to 2147483647");
  }
  for (const auto& [option, name] :
       {std::pair{"--channel", options.channel}, std::pair{"--platform", options.platform}}) {
    if (!plainName(name)) {
      problems.push_back(std::string(option) + " '" + name +
                         "' must be letters, digits, '.', '_' or '-', not starting with '.'");
    }
  }
  if (serverRootInsideRelease(options)) {
    problems.push_back(options.serverRoot.string() + ": the server root lies inside the release");
  }
}

}  // namespace

bool readNotes(const ReleaseOptions& options, std::string& notes, Problems& problems) {
  const std::size_t before = problems.size();
  if (!options.notes.empty()) {
    if (const std::string why = unreadableFile(options.notes, notes); !why.empty()) {
      problems.push_back(options.notes.string() + ": release notes file cannot be read: " + why);
    } else if (needsUnicodeEscape(notes)) {
      problems.push_back(options.notes.string() +
                         ": release notes hold a control character other than tab or line end,"
                         " which the launcher cannot read");
    }
  }
  return problems.size() == before;
}

void judgeRelease(const ReleaseOptions& options, const std::string& notes,
                  const std::vector<update::ManifestFile>& sized, Problems& problems,
                  Problems& warnings) {
  checkValues(options, problems);
  checkAboveFreshInstall(options, problems);
  checkNoLockOut(options, problems);
  warnUnseen(options, notes, warnings);
  const Problems tooLarge = overTransferLimit(sized, options.slowestLinkMbit);
  problems.insert(problems.end(), tooLarge.begin(), tooLarge.end());
}

}  // namespace th::publish
