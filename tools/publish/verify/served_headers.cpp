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

}  // namespace

bool fetchResponseHeaders(const std::string& url, ResponseHeaders& headers, std::string& error) {
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(),
                                                                   curl_easy_cleanup);
  if (!handle) {
    error = "curl_init_failed";
    return false;
  }
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
  if (result != CURLE_OK) error = curl_easy_strerror(result);
  return result == CURLE_OK;
}

}  // namespace th::publish
