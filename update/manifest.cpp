#include "update/manifest.h"

#include <emmintrin.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "update/platform.h"
#include "update/safe_path.h"

namespace th::update {
namespace {

// One bit per start in [at, at + 16) whose byte after it equals the key's second byte and whose
// byte n - 2 after it equals the key's second-to-last byte (a key of n bytes). Both loads stay
// inside the text when at + 16 <= text.size() - n + 1: they end at that bound and at the text's
// second-to-last byte.
unsigned candidateStarts(const char* at, std::size_t n, __m128i second, __m128i penultimate) {
  const __m128i afterQuote = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at + 1));
  const __m128i beforeQuote = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at + n - 2));
  return static_cast<unsigned>(_mm_movemask_epi8(
      _mm_and_si128(_mm_cmpeq_epi8(afterQuote, second), _mm_cmpeq_epi8(beforeQuote, penultimate))));
}

// Plain substring search for a quoted key (at least three bytes). Every key and string value
// starts with a quote, so a search led by the first byte stops all the time; this one first
// compares the bytes after the opening quote and before the closing one, sixteen places at a
// time, and only where both match compares the whole key. An absent optional key is searched
// through the whole manifest, so this is most of what a large manifest costs to read.
std::size_t findText(std::string_view text, std::string_view needle, std::size_t from) {
  const std::size_t n = needle.size();
  if (from > text.size() || text.size() - from < n) return std::string::npos;
  const char* const base = text.data();
  const std::size_t lastStart = text.size() - n;
  const __m128i second = _mm_set1_epi8(needle[1]), penultimate = _mm_set1_epi8(needle[n - 2]);
  std::size_t at = from;
  for (; at + 16 <= lastStart + 1; at += 16) {
    unsigned candidates = candidateStarts(base + at, n, second, penultimate);
    for (; candidates != 0; candidates &= candidates - 1) {
      const std::size_t start = at + static_cast<std::size_t>(__builtin_ctz(candidates));
      if (std::memcmp(base + start, needle.data(), n) == 0) return start;
    }
  }
  for (; at <= lastStart; ++at) {
    if (std::memcmp(base + at, needle.data(), n) == 0) return at;
  }
  return std::string::npos;
}

// A deliberately small field extractor, not a JSON parser: the first textual occurrence of the
// quoted key wins wherever it stands, and the value starts after the next ':' and any blanks.
// Signed manifests are read this way by every launcher in the field, so the rules must not drift.
// Keys are passed with their quotes, so that no lookup builds a string.
std::optional<std::size_t> valueStart(std::string_view text, std::string_view quotedKey) {
  const std::size_t found = findText(text, quotedKey, 0);
  if (found == std::string::npos) return std::nullopt;
  const std::size_t afterNeedle = found + quotedKey.size();
  if (afterNeedle >= text.size()) return std::nullopt;
  const std::size_t colon = text.find(':', afterNeedle);
  if (colon == std::string::npos) return std::nullopt;
  std::size_t at = colon + 1;
  while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at]))) ++at;
  if (at >= text.size()) return std::nullopt;
  return at;
}

// The first '"' or backslash at or after `from`: where a plain run inside a string ends.
std::size_t stringStop(std::string_view text, std::size_t from) {
  while (from < text.size() && text[from] != '"' && text[from] != '\\') ++from;
  return std::min(from, text.size());
}

// Only \n, \r and \t are translated; any other escaped byte stands for itself (so a \u escape
// keeps its four hex digits as plain text). An unterminated string yields what was read.
std::string jsonString(std::string_view text, std::string_view key) {
  const std::optional<std::size_t> start = valueStart(text, key);
  if (!start || text[*start] != '"') return {};
  std::string value;
  for (std::size_t at = *start + 1; at < text.size();) {
    const std::size_t stop = stringStop(text, at);
    value.append(text, at, stop - at);
    if (stop + 1 >= text.size() || text[stop] == '"') break;
    const char c = text[stop + 1];
    value.push_back(c == 'n' ? '\n' : c == 'r' ? '\r' : c == 't' ? '\t' : c);
    at = stop + 2;
  }
  return value;
}

// Leading decimal digits with an optional '-'; an over-long number wraps modulo 2^64. The sum is
// kept unsigned so the wrap is defined behaviour, then converted back.
long long jsonInt(std::string_view text, std::string_view key, long long fallback) {
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
bool jsonBool(std::string_view text, std::string_view key, bool fallback) {
  const std::optional<std::size_t> start = valueStart(text, key);
  if (!start) return fallback;
  return text.substr(*start, 4) == "true";
}

std::int32_t low32(long long value) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(value));
}

void readHeader(const std::string& text, Manifest& manifest) {
  manifest.format = low32(jsonInt(text, R"("format")", 1));
  manifest.product = jsonString(text, R"("product")");
  manifest.channel = jsonString(text, R"("channel")");
  manifest.platform = jsonString(text, R"("platform")");
  manifest.version = jsonString(text, R"("version")");
  manifest.protocolVersion = low32(jsonInt(text, R"("protocol_version")", 0));
  manifest.minimumOnlineVersion = jsonString(text, R"("minimum_online_version")");
  manifest.mandatory = jsonBool(text, R"("mandatory")", false);
  manifest.releaseNotes = jsonString(text, R"("release_notes")");
}

bool headerValid(const Manifest& manifest) {
  return manifest.format == 1 && manifest.product == gameBinaryName() &&
         !manifest.version.empty() && !manifest.platform.empty();
}

// Hands each complete top-level object of the "files" array to `visit`, in order, until it
// returns false. Braces and brackets inside strings do not count; the depth counter is signed and
// never clamped, so a stray '}' leaves it negative for the rest of the scan. An object still open
// at the end of the text is dropped.
template <typename Visit>
void forEachFileObject(const std::string& text, Visit visit) {
  const std::size_t key = findText(text, "\"files\"", 0);
  if (key == std::string::npos) return;
  const std::size_t bracket = text.find('[', key + 7);
  if (bracket == std::string::npos) return;
  std::int64_t depth = 0;
  std::size_t objectStart = std::string::npos;  // none recorded
  for (std::size_t i = bracket + 1; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"') {
      // To the closing quote; the byte after a backslash is taken literally.
      i = stringStop(text, i + 1);
      while (i < text.size() && text[i] == '\\') i = stringStop(text, i + 2);
    } else if (c == '{') {
      if (depth == 0) objectStart = i;
      ++depth;
    } else if (c == '}') {
      --depth;
      if (depth == 0 && objectStart != std::string::npos) {
        const std::string_view object(text.data() + objectStart, i - objectStart + 1);
        objectStart = std::string::npos;
        if (!visit(object)) return;
      }
    } else if (c == ']' && depth == 0) {
      return;
    }
  }
}

ManifestFile readFile(std::string_view object) {
  ManifestFile file;
  file.path = jsonString(object, R"("path")");
  file.sha256 = jsonString(object, R"("sha256")");
  const long long size = jsonInt(object, R"("size")", 0);
  file.size = size < 0 ? 0 : static_cast<std::uint64_t>(size);
  file.executable = jsonBool(object, R"("executable")", false);
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
  bool filesValid = true;
  forEachFileObject(text, [&](std::string_view object) {
    ManifestFile file = readFile(object);
    filesValid = fileValid(file);
    if (filesValid) manifest.files.push_back(std::move(file));
    return filesValid;
  });
  if (!filesValid) {
    error = "manifest_file_invalid";
    return false;
  }
  if (manifest.files.empty()) {
    error = "manifest_has_no_files";
    return false;
  }
  out = std::move(manifest);
  return true;
}

}  // namespace th::update
