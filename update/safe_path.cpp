#include "update/safe_path.h"

#include <algorithm>
#include <string_view>

namespace th::update {
namespace {

constexpr std::size_t kMaxPathBytes = 240;

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// Judged on the text, as a POSIX path where only '/' separates: every manifest entry passes
// here, and building a std::filesystem::path per entry took a third of reading a large manifest.
bool hasRootDirectory(std::string_view path) { return !path.empty() && path.front() == '/'; }

// Elements between '/' separators; repeated separators count as one, and a trailing '/' leaves
// an empty final element, which is harmless.
bool hasDotElement(std::string_view path) {
  for (std::size_t start = 0; start <= path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    const std::string_view element = path.substr(start, end - start);
    if (element == "." || element == "..") return true;
    start = end + 1;
  }
  return false;
}

// The elements joined by single separators: repeated '/' collapse to one.
std::string genericText(std::string_view path) {
  std::string generic;
  generic.reserve(path.size());
  for (const char c : path) {
    if (c != '/' || generic.empty() || generic.back() != '/') generic.push_back(c);
  }
  return generic;
}

// Places a release must never write: saves, player data, the updater's work folder and the key
// that verifies releases. A bare file named like one of the folders is allowed on purpose.
bool isReserved(std::string_view generic) {
  return startsWith(generic, "save/") || startsWith(generic, "userdata/") ||
         startsWith(generic, ".tarnhollow-update/") || generic == "data/update_public_key.pem";
}

}  // namespace

bool safeRelativePath(const std::string& path) {
  if (path.empty() || path.size() > kMaxPathBytes) return false;
  if (path.front() == '/' || path.front() == '\\') return false;
  if (path.find(':') != std::string::npos) return false;
  if (hasRootDirectory(path)) return false;
  if (hasDotElement(path)) return false;
  if (path.find("//") == std::string::npos) return !isReserved(path);
  return !isReserved(genericText(path));
}

}  // namespace th::update
