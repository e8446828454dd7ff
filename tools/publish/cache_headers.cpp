#include "tools/publish/cache_headers.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string_view>

namespace th::publish {
namespace {

std::string lower(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return result;
}

std::string trimmed(std::string_view text) {
  const size_t start = text.find_first_not_of(" \t");
  if (start == std::string_view::npos) return {};
  return std::string(text.substr(start, text.find_last_not_of(" \t") - start + 1));
}

// The value of the first header named `name` (compared without case), if any.
std::optional<std::string> header(const ResponseHeaders& headers, std::string_view name) {
  for (const std::string& line : headers) {
    const size_t colon = line.find(':');
    if (colon != std::string::npos && lower(trimmed(line.substr(0, colon))) == name) {
      return trimmed(std::string_view(line).substr(colon + 1));
    }
  }
  return std::nullopt;
}

// An HTTP date ("Sun, 06 Nov 1994 08:49:37 GMT"); nullopt for anything else, which caches take
// for a time in the past.
std::optional<std::time_t> httpDate(const std::string& text) {
  std::tm parts{};
  const char* end = ::strptime(text.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &parts);
  if (end == nullptr || *end != '\0') return std::nullopt;
  return ::timegm(&parts);
}

struct CacheControl {
  bool revalidates = false;  // no-cache, must-revalidate, no-store or private
  bool lifetime = false;     // a max-age or s-maxage, which outranks Expires
  bool positiveLifetime = false;
};

CacheControl cacheControl(const std::string& value) {
  CacheControl result;
  for (size_t start = 0; start <= value.size();) {
    const size_t comma = std::min(value.find(',', start), value.size());
    const std::string directive =
        lower(trimmed(std::string_view(value).substr(start, comma - start)));
    const std::string name = directive.substr(0, directive.find('='));
    result.revalidates |=
        name == "no-cache" || name == "must-revalidate" || name == "no-store" || name == "private";
    if (name == "max-age" || name == "s-maxage") {
      result.lifetime = true;
      const std::string seconds =
          trimmed(directive.substr(std::min(name.size() + 1, directive.size())));
      result.positiveLifetime |= std::strtol(seconds.c_str(), nullptr, 10) > 0;
    }
    start = comma + 1;
  }
  return result;
}

}  // namespace

std::string staleCachingHeader(const ResponseHeaders& headers, std::time_t now) {
  const std::optional<std::string> control = header(headers, "cache-control");
  const CacheControl parsed = cacheControl(control.value_or(""));
  if (parsed.revalidates) return {};
  if (parsed.positiveLifetime) return "Cache-Control: " + *control;
  const std::optional<std::string> expires = header(headers, "expires");
  if (parsed.lifetime || !expires) return {};
  const std::optional<std::string> date = header(headers, "date");
  const std::optional<std::time_t> expiry = httpDate(*expires);
  const std::time_t reference = date ? httpDate(*date).value_or(now) : now;
  return expiry && *expiry > reference ? "Expires: " + *expires : std::string();
}

}  // namespace th::publish
