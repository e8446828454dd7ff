#include "update/http.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <utility>
#include <vector>

#include "tests/support/nginx_server.h"
#include "tests/support/temp_dir.h"
#include "tests/update/local_http_server.h"
#include "tests/update/update_fixture.h"

namespace th::test {
namespace {

using update::httpDownload;
using update::httpGet;
using update::joinUrl;
namespace fs = std::filesystem;

TEST(JoinUrl, JoinsWithExactlyOneSlashAtTheSeam) {
  struct Case {
    std::string base, relative, joined;
  };
  const std::vector<Case> cases = {
      {"srv/updates/", "/stable", "srv/updates/stable"},
      {"srv/updates", "stable", "srv/updates/stable"},
      {"srv/updates/", "stable", "srv/updates/stable"},
      {"srv/updates", "/stable", "srv/updates/stable"},
      {"srv/u//", "//x", "srv/u///x"},
      {"http://a/b", "https://mirror/x", "https://mirror/x"},
      {"http://a/b", "http://mirror/x", "http://mirror/x"},
      {"http://a/b", "HTTPS://mirror/x", "http://a/b/HTTPS://mirror/x"},
      {"", "a", "a"},
      {"a", "", "a"},
      {"", "", ""},
      {"http://h/a b", "c?d#e/../f", "http://h/a b/c?d#e/../f"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(joinUrl(c.base, c.relative), c.joined) << c.base << " + " << c.relative;
  }
}

// Redirect chains of known length: /hopN answers with a redirect to /hop(N-1), /hop1 to the file.
std::string redirectConfig() {
  std::string config =
      "location = /loop { return 302 /loop; }\n"
      "location = /broken { return 500; }\n"
      "location = /hop1 { return 302 /hello.txt; }\n";
  for (int n = 2; n <= 6; ++n) {
    config += "location = /hop" + std::to_string(n) + " { return 301 /hop" + std::to_string(n - 1) +
              "; }\n";
  }
  return config;
}

class HttpAgainstNginx : public ::testing::Test {
 protected:
  void SetUp() override {
    writeBytes(www / "hello.txt", "hello from nginx\n");
    writeBytes(www / "big.bin", std::string(300000, 'z'));
    ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  }

  TempDir www;
  TempDir out;
  NginxServer nginx{www.path(), redirectConfig()};
};

TEST_F(HttpAgainstNginx, GetFollowsUpToFiveRedirectsAndReportsLibcurlTexts) {
  const std::string httpError = curl_easy_strerror(CURLE_HTTP_RETURNED_ERROR);
  const std::string tooMany = curl_easy_strerror(CURLE_TOO_MANY_REDIRECTS);
  struct Case {
    std::string path;
    bool ok;
    std::string bodyOrError;
  };
  const std::vector<Case> cases = {
      {"/hello.txt", true, "hello from nginx\n"},
      {"/missing.txt", false, httpError},
      {"/broken", false, httpError},
      {"/hop5", true, "hello from nginx\n"},
      {"/hop6", false, tooMany},
      {"/loop", false, tooMany},
  };
  for (const Case& c : cases) {
    std::string body = "stale", error;
    EXPECT_EQ(httpGet(nginx.url() + c.path, body, error), c.ok) << c.path;
    EXPECT_EQ(c.ok ? body : error, c.bodyOrError) << c.path;
    if (!c.ok) {
      EXPECT_EQ(body.find("<html>"), std::string::npos) << c.path << ": " << body;
    }
  }
}

TEST_F(HttpAgainstNginx, ServerSeesTheLauncherUserAgent) {
  std::string body, error;
  ASSERT_TRUE(httpGet(nginx.url() + "/hello.txt", body, error)) << error;
  ASSERT_TRUE(httpDownload(nginx.url() + "/big.bin", out / "big.bin", {}, error)) << error;
  const std::string log = nginx.accessLog(2);
  EXPECT_NE(log.find("GET /hello.txt 200 \"TarnHollowLauncher/1.0.3\""), std::string::npos) << log;
  EXPECT_NE(log.find("GET /big.bin 200 \"TarnHollowLauncher/1.0.3\""), std::string::npos) << log;
}

TEST_F(HttpAgainstNginx, DownloadCreatesFoldersAndReportsProgress) {
  ProgressLog log;
  std::string error;
  const fs::path destination = out / "new" / "deep" / "big.bin";
  // Redirects are followed for downloads too.
  ASSERT_TRUE(httpDownload(nginx.url() + "/hop2", destination, log.sink(), error)) << error;
  EXPECT_EQ(readBytes(destination), "hello from nginx\n");

  log.calls.clear();
  ASSERT_TRUE(httpDownload(nginx.url() + "/big.bin", destination, log.sink(), error)) << error;
  EXPECT_EQ(readBytes(destination), std::string(300000, 'z'));
  ASSERT_FALSE(log.calls.empty());
  EXPECT_EQ(log.calls.back(), std::make_pair(size_t{300000}, size_t{300000}));
  for (size_t i = 1; i < log.calls.size(); ++i) {
    EXPECT_GE(log.calls[i].first, log.calls[i - 1].first);
  }
}

TEST_F(HttpAgainstNginx, FailedDownloadLeavesNoFile) {
  const std::string httpError = curl_easy_strerror(CURLE_HTTP_RETURNED_ERROR);
  for (const std::string path : {"/missing.bin", "/broken", "/loop"}) {
    const fs::path destination = out / "sub" / "file.bin";
    writeBytes(destination, "an older copy");
    std::string error;
    EXPECT_FALSE(httpDownload(nginx.url() + path, destination, {}, error)) << path;
    EXPECT_EQ(error, path == "/loop" ? curl_easy_strerror(CURLE_TOO_MANY_REDIRECTS) : httpError);
    EXPECT_FALSE(fs::exists(destination)) << path;
  }
}

TEST_F(HttpAgainstNginx, DestinationUnderARegularFileIsUnwritable) {
  writeBytes(out / "plain", "a file, not a folder");
  std::string error;
  EXPECT_FALSE(httpDownload(nginx.url() + "/hello.txt", out / "plain" / "x.bin", {}, error));
  EXPECT_EQ(error, "download_destination_unwritable");
  EXPECT_EQ(nginx.accessLog(), "");  // refused before any request
}

TEST(HttpFaults, BodyCutShortLeavesNoFile) {
  LocalHttpServer server([](httplib::Server& s) {
    s.Get("/cut.bin", [](const httplib::Request&, httplib::Response& res) {
      res.set_content_provider(100000, "application/octet-stream",
                               [](size_t offset, size_t, httplib::DataSink& sink) {
                                 if (offset > 0) return false;  // hang up after the first piece
                                 const std::string piece(5000, 'c');
                                 sink.write(piece.data(), piece.size());
                                 return true;
                               });
    });
  });
  ASSERT_TRUE(server.ok());
  TempDir out;
  std::string error;
  size_t lastDone = 0;
  EXPECT_FALSE(httpDownload(
      server.url() + "/cut.bin", out / "cut.bin", [&](size_t done, size_t) { lastDone = done; },
      error));
  EXPECT_EQ(error, curl_easy_strerror(CURLE_PARTIAL_FILE));
  EXPECT_FALSE(fs::exists(out / "cut.bin"));
  EXPECT_LE(lastDone, 5000u);

  std::string body;
  EXPECT_FALSE(httpGet(server.url() + "/cut.bin", body, error));
  EXPECT_EQ(error, curl_easy_strerror(CURLE_PARTIAL_FILE));
}

TEST(HttpFaults, SlowBodyOfUnknownLengthReportsATotalOfZero) {
  LocalHttpServer server([](httplib::Server& s) {
    s.Get("/slow.bin", [](const httplib::Request&, httplib::Response& res) {
      res.set_chunked_content_provider("application/octet-stream",
                                       [](size_t offset, httplib::DataSink& sink) {
                                         if (offset >= 4000) {
                                           sink.done();
                                           return true;
                                         }
                                         std::this_thread::sleep_for(std::chrono::milliseconds(50));
                                         const std::string piece(1000, 's');
                                         sink.write(piece.data(), piece.size());
                                         return true;
                                       });
    });
  });
  ASSERT_TRUE(server.ok());
  TempDir out;
  std::string error;
  ProgressLog log;
  ASSERT_TRUE(httpDownload(server.url() + "/slow.bin", out / "slow.bin", log.sink(), error))
      << error;
  EXPECT_EQ(readBytes(out / "slow.bin"), std::string(4000, 's'));
  ASSERT_FALSE(log.calls.empty());
  EXPECT_EQ(log.calls.back(), std::make_pair(size_t{4000}, size_t{0}));
}

}  // namespace
}  // namespace th::test
