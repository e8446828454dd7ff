#include "update/http.h"

#include <curl/curl.h>

#include <fstream>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>

#include "update/dynamic_library.h"

namespace th::update {
namespace {

// Sized by measurement (docs/BENCHMARKS.md, P3).
constexpr std::size_t kDownloadBufferBytes = 256 * 1024;

// libcurl's easy interface, loaded when the first request is made (`update/dynamic_library.h`):
// it and the thirty-odd libraries it needs cost the first frame nothing, and a start without a
// configured server never loads them.
struct CurlApi {
  CURL* (*easyInit)();
  CURLcode (*easySetopt)(CURL*, CURLoption, ...);
  CURLcode (*easyPerform)(CURL*);
  void (*easyCleanup)(CURL*);
  const char* (*easyStrerror)(CURLcode);
};

std::optional<CurlApi> loadCurl() {
  void* library = loadLibrary("libcurl.so.4");
  CurlApi api{};
  if (!resolve(library, "curl_easy_init", api.easyInit) ||
      !resolve(library, "curl_easy_setopt", api.easySetopt) ||
      !resolve(library, "curl_easy_perform", api.easyPerform) ||
      !resolve(library, "curl_easy_cleanup", api.easyCleanup) ||
      !resolve(library, "curl_easy_strerror", api.easyStrerror)) {
    return std::nullopt;
  }
  return api;
}

// Null when libcurl cannot be loaded: requests then fail as if no handle could be made.
const CurlApi* curl() {
  static const std::optional<CurlApi> api = loadCurl();
  return api ? &*api : nullptr;
}

struct CurlCleanup {
  void operator()(CURL* handle) const { curl()->easyCleanup(handle); }
};
using CurlHandle = std::unique_ptr<CURL, CurlCleanup>;

CurlHandle newHandle() { return CurlHandle(curl() != nullptr ? curl()->easyInit() : nullptr); }

template <typename Value>
void setOption(CURL* handle, CURLoption option, Value value) {
  curl()->easySetopt(handle, option, value);
}

// Settings shared by every request; curl_easy_setopt results are deliberately not checked.
bool setupCurl(CURL* handle, const std::string& url, std::string& error) {
  if (handle == nullptr) {
    error = "curl_init_failed";
    return false;
  }
  setOption(handle, CURLOPT_URL, url.c_str());
  setOption(handle, CURLOPT_FOLLOWLOCATION, 1L);
  setOption(handle, CURLOPT_MAXREDIRS, 5L);
  setOption(handle, CURLOPT_CONNECTTIMEOUT, 6L);
  setOption(handle, CURLOPT_TIMEOUT, kRequestTimeoutSeconds);
  setOption(handle, CURLOPT_USERAGENT, "TarnHollowLauncher/1.0.3");
  setOption(handle, CURLOPT_FAILONERROR, 1L);
  setOption(handle, CURLOPT_SSL_VERIFYPEER, 1L);
  setOption(handle, CURLOPT_SSL_VERIFYHOST, 2L);
  return true;
}

size_t writeString(char* data, size_t size, size_t count, void* target) {
  static_cast<std::string*>(target)->append(data, size * count);
  return size * count;
}

// Returning less than was offered makes libcurl abort with a write error.
size_t writeFile(char* data, size_t size, size_t count, void* target) {
  auto* out = static_cast<std::ofstream*>(target);
  out->write(data, static_cast<std::streamsize>(size * count));
  return out->good() ? size * count : 0;
}

int curlProgress(void* target, curl_off_t downloadTotal, curl_off_t downloadNow,
                 curl_off_t /*uploadTotal*/, curl_off_t /*uploadNow*/) {
  auto* progress = static_cast<ProgressCallback*>(target);
  if (progress != nullptr && *progress) {
    (*progress)(static_cast<size_t>(downloadNow), static_cast<size_t>(downloadTotal));
  }
  return 0;  // progress reporting never cancels a transfer
}

bool startsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

std::string joinUrl(const std::string& base, const std::string& relative) {
  if (startsWith(relative, "http://") || startsWith(relative, "https://")) return relative;
  if (base.empty()) return relative;
  if (relative.empty()) return base;
  const bool baseSlash = base.back() == '/';
  const bool relativeSlash = relative.front() == '/';
  if (baseSlash && relativeSlash) return base + relative.substr(1);
  if (!baseSlash && !relativeSlash) return base + "/" + relative;
  return base + relative;
}

bool httpGet(const std::string& url, std::string& body, std::string& error) {
  body.clear();
  CurlHandle handle = newHandle();
  if (!setupCurl(handle.get(), url, error)) return false;
  setOption(handle.get(), CURLOPT_WRITEFUNCTION, writeString);
  setOption(handle.get(), CURLOPT_WRITEDATA, &body);
  const CURLcode result = curl()->easyPerform(handle.get());
  if (result != CURLE_OK) {
    error = curl()->easyStrerror(result);
    return false;
  }
  return true;
}

bool httpDownload(const std::string& url, const std::filesystem::path& destination,
                  ProgressCallback progress, std::string& error) {
  std::error_code ignored;
  std::filesystem::create_directories(destination.parent_path(), ignored);
  // The stream's own buffer, larger than the library's default: each of libcurl's 16 KiB
  // deliveries then costs a copy, not a system call, and the file grows in large writes. No
  // request, option or progress report changes with it. Left unfilled: zeroing it cost every
  // small file a pass over the whole buffer.
  const auto buffer = std::make_unique_for_overwrite<char[]>(kDownloadBufferBytes);
  std::ofstream out;
  out.rdbuf()->pubsetbuf(buffer.get(), static_cast<std::streamsize>(kDownloadBufferBytes));
  out.open(destination, std::ios::binary | std::ios::out | std::ios::trunc);
  if (out.fail() || out.bad()) {
    error = "download_destination_unwritable";
    return false;
  }
  CurlHandle handle = newHandle();
  // The empty file stays: callers download into a throw-away staging folder.
  if (!setupCurl(handle.get(), url, error)) return false;
  ProgressCallback callback = std::move(progress);
  setOption(handle.get(), CURLOPT_WRITEFUNCTION, writeFile);
  setOption(handle.get(), CURLOPT_WRITEDATA, &out);
  setOption(handle.get(), CURLOPT_NOPROGRESS, 0L);
  setOption(handle.get(), CURLOPT_XFERINFOFUNCTION, curlProgress);
  setOption(handle.get(), CURLOPT_XFERINFODATA, &callback);
  const CURLcode result = curl()->easyPerform(handle.get());
  handle.reset();
  // A failed close is not reported: the caller verifies the file's digest anyway.
  out.close();
  if (result != CURLE_OK) {
    error = curl()->easyStrerror(result);
    std::filesystem::remove(destination, ignored);
    return false;
  }
  return true;
}

}  // namespace th::update
