#include "update/manifest.h"

#include <cctype>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>

#include "update/platform.h"
#include "update/safe_path.h"

namespace th::update {
namespace {

// A deliberately small field extractor, not a JSON parser: the first textual occurrence of the
// quoted key wins wherever it stands, and the value starts after the next ':' and any blanks.
// Signed manifests are read this way by every launcher in the field, so the rules must not drift.
std::optional<std::size_t> valueStart(const std::string& text, const std::string& key) {
  const std::string needle = "\"" + key + "\"";
  const std::size_t found = text.find(needle);
  if (found == std::string::npos) return std::nullopt;
  const std::size_t afterNeedle = found + needle.size();
  if (afterNeedle >= text.size()) return std::nullopt;
  const std::size_t colon = text.find(':', afterNeedle);
  if (colon == std::string::npos) return std::nullopt;
  std::size_t at = colon + 1;
  while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at]))) ++at;
  if (at >= text.size()) return std::nullopt;
  return at;
}

// Only \n, \r and \t are translated; any other escaped byte stands for itself (so a \u escape
// keeps its four hex digits as plain text). An unterminated string yields what was read.
std::string jsonString(const std::string& text, const std::string& key) {
  const std::optional<std::size_t> start = valueStart(text, key);
  if (!start || text[*start] != '"') return {};
  std::string value;
  bool escaped = false;
  for (std::size_t i = *start + 1; i < text.size(); ++i) {
    const char c = text[i];
    if (escaped) {
      escaped = false;
      value.push_back(c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c);
    } else if (c == '\\') {
      escaped = true;
    } else if (c == '"') {
      break;
    } else {
      value.push_back(c);
    }
  }
  return value;
}

// Leading decimal digits with an optional '-'; an over-long number wraps modulo 2^64. The sum is
// kept unsigned so the wrap is defined behaviour, then converted back.
long long jsonInt(const std::string& text, const std::string& key, long long fallback) {
  const std::optional<std::size_t> start = valueStart(text, key);
  if (!start) return fallback;
  std::size_t at = *start;
  const bool negative = text[at] == '-';
  if (negative && ++at >= text.size()) return fallback;
  std::uint64_t value = 0;
  bool sawDigit = false;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
    value = value * 10u + static_cast<std::uint64_t>(text[at] - '0');
    sawDigit = true;
  }
  if (!sawDigit) return fallback;
  if (negative) value = 0u - value;
  return static_cast<long long>(value);
}

// Only the four bytes "true" count; whatever follows them is ignored.
bool jsonBool(const std::string& text, const std::string& key, bool fallback) {
  const std::optional<std::size_t> start = valueStart(text, key);
  if (!start) return fallback;
  return text.compare(*start, 4, "true") == 0;
}

std::int32_t low32(long long value) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
}

void readHeader(const std::string& text, Manifest& manifest) {
  manifest.format = low32(jsonInt(text, "format", 1));
  manifest.product = jsonString(text, "product");
  manifest.channel = jsonString(text, "channel");
  manifest.platform = jsonString(text, "platform");
  manifest.version = jsonString(text, "version");
  manifest.protocolVersion = low32(jsonInt(text, "protocol_version", 0));
  manifest.minimumOnlineVersion = jsonString(text, "minimum_online_version");
  manifest.mandatory = jsonBool(text, "mandatory", false);
  manifest.releaseNotes = jsonString(text, "release_notes");
}

bool headerValid(const Manifest& manifest) {
  return manifest.format == 1 && manifest.product == gameBinaryName() &&
         !manifest.version.empty() && !manifest.platform.empty();
}

// The texts of the complete top-level objects of the "files" array. Braces and brackets inside
// strings do not count; the depth counter is signed and never clamped, so a stray '}' leaves it
// negative for the rest of the scan. An object still open at the end of the text is dropped.
std::vector<std::string> fileObjects(const std::string& text) {
  std::vector<std::string> objects;
  const std::size_t key = text.find("\"files\"");
  if (key == std::string::npos) return objects;
  const std::size_t bracket = text.find('[', key + 7);
  if (bracket == std::string::npos) return objects;
  bool inString = false;
  bool escaped = false;
  std::int64_t depth = 0;
  std::size_t objectStart = std::string::npos;  // none recorded
  for (std::size_t i = bracket + 1; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '{') {
      if (depth == 0) objectStart = i;
      ++depth;
    } else if (c == '}') {
      --depth;
      if (depth == 0 && objectStart != std::string::npos) {
        objects.push_back(text.substr(objectStart, i - objectStart + 1));
        objectStart = std::string::npos;
      }
    } else if (c == ']' && depth == 0) {
      break;
    }
  }
  return objects;
}

ManifestFile readFile(const std::string& object) {
  ManifestFile file;
  file.path = jsonString(object, "path");
  file.sha256 = jsonString(object, "sha256");
  const long long size = jsonInt(object, "size", 0);
  file.size = size < 0 ? 0 : static_cast<std::uint64_t>(size);
  file.executable = jsonBool(object, "executable", false);
  return file;
}

bool fileValid(const ManifestFile& file) {
  return safeRelativePath(file.path) && file.sha256.size() == 64;
}

}  // namespace

bool parseManifest(const std::string& text, Manifest& out, std::string& error) {
  Manifest manifest;
  readHeader(text, manifest);
  if (!headerValid(manifest)) {
    error = "manifest_header_invalid";
    return false;
  }
  for (const std::string& object : fileObjects(text)) {
    ManifestFile file = readFile(object);
    if (!fileValid(file)) {
      error = "manifest_file_invalid";
      return false;
    }
    manifest.files.push_back(std::move(file));
  }
  if (manifest.files.empty()) {
    error = "manifest_has_no_files";
    return false;
  }
  out = std::move(manifest);
  return true;
}

}  // namespace th::update
