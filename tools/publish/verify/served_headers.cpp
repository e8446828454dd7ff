#include "tools/publish/verify/served_headers.h"

#include <curl/curl.h>

#include <memory>

namespace th::publish {
namespace {

// Each response of a redirect chain starts with its status line: only the last one's headers stay.
size_t collectHeader(char* data, size_t size, size_t count, void* target) {
  auto* headers = static_cast<ResponseHeaders*>(target);
  std::string line(data, size * count);
  while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
  if (line.starts_with("HTTP/")) headers->clear();
  if (!line.empty()) headers->push_back(std::move(line));
  return size * count;
}

// A HEAD request; `status` is the final response's code, also when that is an error.
CURLcode headRequest(const std::string& url, ResponseHeaders& headers, long& status) {
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(),
                                                                   curl_easy_cleanup);
  if (!handle) return CURLE_FAILED_INIT;
  headers.clear();
  curl_easy_setopt(handle.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(handle.get(), CURLOPT_NOBODY, 1L);
  curl_easy_setopt(handle.get(), CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(handle.get(), CURLOPT_MAXREDIRS, 5L);
  curl_easy_setopt(handle.get(), CURLOPT_TIMEOUT, 60L);
  curl_easy_setopt(handle.get(), CURLOPT_USERAGENT, "tarn-hollow-publish");
  curl_easy_setopt(handle.get(), CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(handle.get(), CURLOPT_HEADERFUNCTION, collectHeader);
  curl_easy_setopt(handle.get(), CURLOPT_HEADERDATA, &headers);
  const CURLcode result = curl_easy_perform(handle.get());
  status = 0;
  curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
  return result;
}

}  // namespace

bool fetchResponseHeaders(const std::string& url, ResponseHeaders& headers, std::string& error) {
  long status = 0;
  const CURLcode result = headRequest(url, headers, status);
  if (result == CURLE_FAILED_INIT) {
    error = "curl_init_failed";
  } else if (result != CURLE_OK) {
    error = curl_easy_strerror(result);
  }
  return result == CURLE_OK;
}

std::string withHttpStatus(const std::string& url, const std::string& error) {
  if (error != curl_easy_strerror(CURLE_HTTP_RETURNED_ERROR)) return error;
  ResponseHeaders headers;
  long status = 0;
  headRequest(url, headers, status);
  return status == 0 ? error : error + " (HTTP " + std::to_string(status) + ")";
}

}  // namespace th::publish
