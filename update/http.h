#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace th::update {

// Bytes done and bytes expected (0 while unknown).
using ProgressCallback = std::function<void(size_t done, size_t total)>;

// Joins with exactly one '/' at the seam; an absolute http(s) URL in `relative` wins.
std::string joinUrl(const std::string& base, const std::string& relative);

// The header lines of the final response (after any redirects), without their line ends.
using ResponseHeaders = std::vector<std::string>;

// Fetches a small resource into `body`. On failure `error` holds libcurl's message (or
// "curl_init_failed"); HTTP statuses of 400 and above are failures. `headers`, when given,
// receives the response's header lines.
bool httpGet(const std::string& url, std::string& body, std::string& error,
             ResponseHeaders* headers = nullptr);

// Streams a resource into `destination` (parent folders created). A failed download leaves no
// file. `progress` may be empty; `headers` as for httpGet.
bool httpDownload(const std::string& url, const std::filesystem::path& destination,
                  ProgressCallback progress, std::string& error,
                  ResponseHeaders* headers = nullptr);

}  // namespace th::update
