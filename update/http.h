#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>

namespace th::update {

// Bytes done and bytes expected (0 while unknown).
using ProgressCallback = std::function<void(size_t done, size_t total)>;

// Every request, a whole file's download included, ends after this long; a file cut off is
// fetched again from its first byte at the next check. The release tool sizes files by it.
constexpr long kRequestTimeoutSeconds = 180;

// Joins with exactly one '/' at the seam; an absolute http(s) URL in `relative` wins.
std::string joinUrl(const std::string& base, const std::string& relative);

// Fetches a small resource into `body`. On failure `error` holds libcurl's message (or
// "curl_init_failed"); HTTP statuses of 400 and above are failures.
bool httpGet(const std::string& url, std::string& body, std::string& error);

// Streams a resource into `destination` (parent folders created). A failed download leaves no
// file. `progress` may be empty.
bool httpDownload(const std::string& url, const std::filesystem::path& destination,
                  ProgressCallback progress, std::string& error);

}  // namespace th::update
