#include "update/safe_path.h"

#include <filesystem>
#include <string_view>

namespace th::update {
namespace {

constexpr std::size_t kMaxPathBytes = 240;

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// Elements between '/' separators; repeated separators count as one, and a trailing '/' leaves
// an empty final element, which is harmless.
bool hasDotElement(const std::filesystem::path& path) {
  for (const auto& element : path) {
    if (element == "." || element == "..") return true;
  }
  return false;
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
  const std::filesystem::path parsed(path);
  if (parsed.has_root_directory()) return false;
  if (hasDotElement(parsed)) return false;
  return !isReserved(parsed.generic_string());
}

}  // namespace th::update
