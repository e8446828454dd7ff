#include "tools/publish/verify/cache_headers.h"

#include <curl/curl.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>
#include <string_view>

namespace th::publish {
namespace {

// How a shared cache treats a response: the first row whose header carries its directive
// decides, in the order caches rank them. A lifetime row lets the cache serve the response
// unasked for that long; the others make it ask the server every time (or never store it).
// must-revalidate and proxy-revalidate are no rows: they only forbid serving a response once
// stale, not while fresh. No row at all: the cache picks a lifetime itself (Varnish two minutes,
// CDNs up to a day).
struct CacheRule {
  std::string_view header, directive;
  bool lifetime;
};
constexpr CacheRule kCacheRules[] = {
    {"surrogate-control", "no-store", false},  // a CDN keeps nothing
    {"surrogate-control", "max-age", true},    // a CDN's own, outranking Cache-Control
    {"cache-control", "no-store", false},
    {"cache-control", "no-cache", false},  // stored, but revalidated on every request
    {"cache-control", "private", false},   // no shared cache stores it
    {"cache-control", "s-maxage", true},   // for shared caches, outranking max-age
    {"cache-control", "max-age", true},
    {"expires", "", true},  // its date less the response's Date
};

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

// The values of every header named `name` (compared without case), joined by ", " as a list
// header sent on several lines means; nullopt when there is none.
std::optional<std::string> header(const ResponseHeaders& headers, std::string_view name) {
  std::optional<std::string> joined;
  for (const std::string& line : headers) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos || lower(trimmed(line.substr(0, colon))) != name) continue;
    const std::string value = trimmed(std::string_view(line).substr(colon + 1));
    joined = joined ? *joined + ", " + value : value;
  }
  return joined;
}

// An HTTP date in any of its three forms; an invalid one is a time in the past, as caches take it.
std::time_t httpDate(const std::string& text) {
  return std::max<time_t>(curl_getdate(text.c_str(), nullptr), 0);
}

// The directive's value ("" for one without) in a comma-separated list, if the list holds it.
std::optional<std::string> directive(const std::string& list, std::string_view name) {
  for (size_t start = 0; start <= list.size();) {
    const size_t comma = std::min(list.find(',', start), list.size());
    const std::string item = lower(trimmed(std::string_view(list).substr(start, comma - start)));
    const size_t equals = std::min(item.find('='), item.size());
    if (trimmed(std::string_view(item).substr(0, equals)) == name) {
      return trimmed(std::string_view(item).substr(std::min(equals + 1, item.size())));
    }
    start = comma + 1;
  }
  return std::nullopt;
}

std::optional<long> seconds(const std::string& value) {
  long number = 0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  if (error != std::errc() || end != value.data() + value.size()) return std::nullopt;
  return number;
}

// How long the row lets a cache keep the response fresh, if the row applies.
std::optional<long> rowLifetime(const CacheRule& rule, const std::string& value,
                                const ResponseHeaders& headers, std::time_t now) {
  if (rule.directive.empty()) {
    const std::optional<std::string> date = header(headers, "date");
    return static_cast<long>(httpDate(value) - (date ? httpDate(*date) : now));
  }
  const std::optional<std::string> given = directive(value, rule.directive);
  if (!given) return std::nullopt;
  // A directive with a value names fields (no-cache="Set-Cookie"): it does not hold the response.
  if (!rule.lifetime) return given->empty() ? std::optional<long>(0) : std::nullopt;
  return seconds(given->starts_with('"') && given->size() > 1 ? given->substr(1, given->size() - 2)
                                                              : *given);
}

// The verdict of a CDN, which reads Surrogate-Control, or of any other shared cache, which does
// not.
std::string verdict(const ResponseHeaders& headers, std::time_t now, bool surrogate) {
  for (const CacheRule& rule : kCacheRules) {
    const std::optional<std::string> value = header(headers, rule.header);
    const std::optional<long> lifetime =
        value && (surrogate || !rule.header.starts_with("surrogate"))
            ? rowLifetime(rule, *value, headers, now)
            : std::nullopt;
    if (!lifetime) continue;
    if (!rule.lifetime || *lifetime <= kFreshEnoughSeconds) return {};
    std::string name(rule.header);
    for (size_t i = 0; i < name.size(); ++i) {
      if (i == 0 || name[i - 1] == '-') name[i] = static_cast<char>(std::toupper(name[i]));
    }
    return "\"" + name + ": " + *value +
           "\" lets a shared cache serve it stale, without asking the server";
  }
  return "no Cache-Control, Surrogate-Control or Expires: a shared cache picks a lifetime itself "
         "and may serve it stale, without asking the server";
}

}  // namespace

std::string staleCaching(const ResponseHeaders& headers, std::time_t now) {
  std::string why = verdict(headers, now, true);
  return why.empty() ? verdict(headers, now, false) : why;
}

}  // namespace th::publish
