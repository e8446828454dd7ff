#include "update/http.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include "tests/support/files.h"
#include "tests/support/nginx_server.h"

namespace th::test {
namespace {

using namespace update;
namespace fs = std::filesystem;

TEST(JoinUrl, JoinsWithExactlyOneSlashAtTheSeam) {
  const struct {
    std::string base, relative, joined;
  } table[] = {
      {"srv/updates/", "/stable", "srv/updates/stable"},
      {"srv/updates", "stable", "srv/updates/stable"},
      {"srv/u//", "//x", "srv/u///x"},
      {"http://a/b", "https://mirror/x", "https://mirror/x"},
      {"http://a/b", "HTTPS://mirror/x", "http://a/b/HTTPS://mirror/x"},
      {"", "a", "a"},
      {"a", "", "a"},
  };
  for (const auto& row : table) {
    EXPECT_EQ(joinUrl(row.base, row.relative), row.joined) << row.base << " + " << row.relative;
  }
}

class Http : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(nginx.ok()) << nginx.errorLog(); }

  TempDir www, out;
  // /hopN redirects to /hop(N-1), /hop1 to the file: chains of known length.
  NginxServer nginx{www.path(), [this] {
                      writeBytes(www / "hello.txt", "hello from nginx\n");
                      writeBytes(www / "big.bin", std::string(3000000, 'z'));
                      std::string config = "location = /loop { return 302 /loop; }\n";
                      config += "location = /big.bin { limit_rate 2m; }\n";  // progress mid-way
                      config += "location = /hop1 { return 302 /hello.txt; }\n";
                      for (int n = 2; n <= 6; ++n) {
                        config += "location = /hop" + std::to_string(n) + " { return 301 /hop" +
                                  std::to_string(n - 1) + "; }\n";
                      }
                      return config;
                    }()};
};

TEST_F(Http, GetFollowsUpToFiveRedirectsAndReportsLibcurlTexts) {
  const std::string tooMany = curl_easy_strerror(CURLE_TOO_MANY_REDIRECTS);
  const struct {
    std::string path;
    bool ok;
    std::string bodyOrError;
  } table[] = {
      {"/hello.txt", true, "hello from nginx\n"},
      {"/missing.txt", false, curl_easy_strerror(CURLE_HTTP_RETURNED_ERROR)},
      {"/hop5", true, "hello from nginx\n"},
      {"/hop6", false, tooMany},
      {"/loop", false, tooMany},
  };
  for (const auto& row : table) {
    std::string body, error;
    EXPECT_EQ(httpGet(nginx.url() + row.path, body, error), row.ok) << row.path;
    EXPECT_EQ(row.ok ? body : error, row.bodyOrError) << row.path;
  }
  EXPECT_NE(nginx.accessLog(7).find("GET /hello.txt 200 \"TarnHollowLauncher/1.0.3\""),
            std::string::npos);
}

TEST_F(Http, DownloadCreatesFoldersReportsProgressAndLeavesNoFileOnFailure) {
  std::vector<std::pair<size_t, size_t>> progress;
  std::string error;
  const fs::path destination = out / "new" / "deep" / "big.bin";
  ASSERT_TRUE(httpDownload(
      nginx.url() + "/big.bin", destination,
      [&](size_t done, size_t total) { progress.emplace_back(done, total); }, error))
      << error;
  EXPECT_EQ(readBytes(destination), std::string(3000000, 'z'));
  ASSERT_FALSE(progress.empty());
  EXPECT_EQ(progress.back(), std::make_pair(size_t{3000000}, size_t{3000000}));
  for (const auto& [done, total] : progress) EXPECT_LE(done, total);
  EXPECT_NE(nginx.accessLog(1).find("GET /big.bin 200 \"TarnHollowLauncher/1.0.3\""),
            std::string::npos);

  EXPECT_FALSE(httpDownload(nginx.url() + "/missing.bin", destination, {}, error));
  EXPECT_EQ(error, curl_easy_strerror(CURLE_HTTP_RETURNED_ERROR));
  EXPECT_FALSE(fs::exists(destination));
}

}  // namespace
}  // namespace th::test
