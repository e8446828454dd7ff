// Transport, check and apply against a real nginx serving signed releases.
#include "update/updater.h"
#include "update/http.h"

#include <curl/curl.h>
#include <gtest/gtest.h>

#include <functional>

#include "tests/support/update_server.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;
using update::UpdatePlan;

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
  for (const auto& row : table)
    EXPECT_EQ(update::joinUrl(row.base, row.relative), row.joined) << row.base << row.relative;
}

const std::string kLauncher = "tarn-hollow-launcher";

class Updater : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(tls.ok() && tls.trustedHere()) << "the HTTPS tests need openssl and root";
    ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
    writeBytes(www / "hello.txt", "hello from nginx\n");
    writeBytes(www / "big.bin", std::string(3000000, 'z'));
    prepareInstall(install.path(), nginx.url(), "1.0.0\n");
    updater.server = nginx.url();
  }

  UpdatePlan checked() {
    UpdatePlan plan;
    std::string error;
    EXPECT_TRUE(updater.check("stable", plan, error)) << error;
    return plan;
  }

  // The staging folders in the updater's work folder, with all they hold.
  std::string stages() const {
    std::string names;
    for (const auto& [path, entry] : snapshotFolder(install / ".tarnhollow-update"))
      if (path.starts_with("stage-")) names += path + ";";
    return names;
  }

  std::vector<std::pair<size_t, size_t>> progress;  // as reported to `recorder`
  const update::ProgressCallback recorder = [this](size_t done, size_t total) {
    progress.emplace_back(done, total);
  };
  const TestCertificates tls;
  TempDir www, install;
  // Over HTTPS; /hop/x/x... loses an /x per redirect, /hop goes to the file.
  NginxServer nginx{www.path(),
                    "location = /hop { return 302 /hello.txt; }\n"
                    "location ~ ^/hop/x(/.*)?$ { return 301 /hop$1; }\n",
                    tls.good};
  update::Updater updater{install.path()};
};

using Http = Updater;

// Only certificates that the system's CA bundle (here the test CA's alone) vouches for are
// trusted: one from another CA, an expired one or one for another host name is refused before any
// request. Redirects are followed from http to https, never to a local file.
TEST_F(Http, GetFollowsRedirectsOnTheWebTrustsOnlyValidCertificatesAndReportsLibcurlTexts) {
  const std::string hello = "hello from nginx\n",
                    refused = curl_easy_strerror(CURLE_PEER_FAILED_VERIFICATION);
  NginxServer untrusted(www.path(), "", tls.untrusted), expired(www.path(), "", tls.expired),
      otherHost(www.path(), "", tls.otherHost),
      redirects(www.path(), "location = /https { return 301 " + nginx.url() + "/hello.txt; }\n" +
                                "location = /file { return 302 file://" + www.path().string() +
                                "/hello.txt; }\n");
  const struct {
    std::string url, bodyOrError;  // the body when the file is fetched, else the error
  } table[] = {
      {nginx.url() + "/hello.txt", hello},
      {nginx.url() + "/missing.txt", curl_easy_strerror(CURLE_HTTP_RETURNED_ERROR)},
      {nginx.url() + "/hop/x/x/x/x", hello},
      {nginx.url() + "/hop/x/x/x/x/x", curl_easy_strerror(CURLE_TOO_MANY_REDIRECTS)},
      {untrusted.url() + "/hello.txt", refused},
      {expired.url() + "/hello.txt", refused},
      {otherHost.url() + "/hello.txt", refused},
      {redirects.url() + "/https", hello},
      {redirects.url() + "/file", curl_easy_strerror(CURLE_UNSUPPORTED_PROTOCOL)},
  };
  for (const auto& row : table) {
    std::string body, error;
    EXPECT_EQ(update::httpGet(row.url, body, error) ? body : error, row.bodyOrError) << row.url;
  }
  EXPECT_NE(nginx.accessLog(8).find("GET /hello.txt 200 \"TarnHollowLauncher/1.0.3\""),
            std::string::npos);
  EXPECT_EQ(untrusted.accessLog() + expired.accessLog() + otherHost.accessLog(), "");
}

TEST_F(Http, DownloadCreatesFoldersReportsProgressAndLeavesNoFileOnFailure) {
  std::string error;
  const fs::path destination = install / "new" / "deep" / "big.bin";
  ASSERT_TRUE(update::httpDownload(nginx.url() + "/big.bin", destination, recorder, error))
      << error;
  EXPECT_EQ(readBytes(destination), std::string(3000000, 'z'));
  ASSERT_FALSE(progress.empty());
  EXPECT_EQ(progress.back(), std::make_pair(size_t{3000000}, size_t{3000000}));
  // At loopback speed too, the bar moves within a file of a few MiB.
  EXPECT_TRUE(std::any_of(progress.begin(), progress.end(),
                          [](auto report) { return report.first > 0 && report.first < 3000000; }));

  EXPECT_FALSE(update::httpDownload(nginx.url() + "/missing.bin", destination, {}, error));
  EXPECT_EQ(error, curl_easy_strerror(CURLE_HTTP_RETURNED_ERROR));
  EXPECT_FALSE(fs::exists(destination));
}

const Release kFiveFiles{.version = "2.0.0",
                         .files = {{"tarn-hollow", "game 2.0", true},
                                   {"data/a.bin", std::string(70000, 'a')},
                                   {"data/forest.map", "forest 2.0"},
                                   {"data/extra/d.bin", "d 2.0"},
                                   {"tarn-hollow-update-helper", "helper 2.0", true}},
                         .minimumOnlineVersion = ""};

TEST_F(Updater, PlansWhatIsMissingOrDifferentByDigestAloneUnderAnyServerPath) {
  // Under a server path given with a trailing slash, with a signature file ending in CR LF.
  Release release = kFiveFiles;
  release.files = {{"current.txt", "same bytes"},
                   {"stale.txt", "new bytes"},
                   {"absent/deep/new.txt", "brand new", false, 100},
                   {"folder-here", "a file", false, 7},
                   {"wrong-size.txt", "right digest", false, 999},
                   {"bin/" + kLauncher, "new launcher", true}};
  const std::string manifest = publishRelease(www / "updates", release);
  publishRawManifest(www / "updates", manifest, signHex(manifest) + "\r\n");
  updater.server = nginx.url() + "/updates/";
  writeBytes(install / "current.txt", "same bytes");
  writeBytes(install / "stale.txt", "old bytes");
  fs::create_directories(install / "folder-here");
  writeBytes(install / "wrong-size.txt", "right digest");
  writeBytes(install / "bin" / kLauncher, "old launcher");

  const UpdatePlan plan = checked();
  std::string paths;
  for (const auto& file : plan.files) paths += file.path + (file.missing ? " (missing);" : ";");
  EXPECT_EQ(paths,
            "stale.txt;absent/deep/new.txt (missing);folder-here (missing);bin/" + kLauncher + ";");
  EXPECT_EQ(plan.totalBytes, 9u + 100u + 7u + 12u);
  EXPECT_TRUE(plan.launcherUpdate);
}

TEST_F(Updater, AppliesAnEmptyPlanWithoutAnyRequestOrChange) {
  const FolderSnapshot before = snapshotFolder(install.path());
  UpdatePlan plan;
  plan.manifest.version = "2.0.0";
  std::string error;
  EXPECT_TRUE(updater.apply(plan, {}, error, nullptr)) << error;
  EXPECT_EQ(snapshotDiff(before, snapshotFolder(install.path())), "");
  EXPECT_EQ(nginx.accessLog(), "");
}

// A new launcher is left staged for the update helper when the caller takes it, and discarded
// with the staging folder when it does not.
TEST_F(Updater, InstallsAFreshReleaseThenOnlyWhatChangedLeavingTheLauncherStaged) {
  Release release = kFiveFiles;
  release.files.push_back({"bin/" + kLauncher, "launcher 2.0", true});
  publishRelease(www.path(), release);
  const UpdatePlan plan = checked();
  fs::path staged;
  std::string error;
  ASSERT_TRUE(updater.apply(plan, recorder, error, &staged)) << error;
  // Contents, modes, the marker and the player's files after an apply: disk_test.cpp.
  EXPECT_EQ(readBytes(install / "data" / "a.bin"), std::string(70000, 'a'));
  EXPECT_FALSE(fs::exists(install / "bin" / kLauncher));
  EXPECT_EQ(readBytes(staged), "launcher 2.0");
  ASSERT_FALSE(progress.empty());
  for (const auto& [done, total] : progress) EXPECT_EQ(total, plan.totalBytes);
  EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));  // one rising figure for all files
  EXPECT_EQ(progress.back(), std::make_pair(plan.totalBytes, plan.totalBytes));

  writeBytes(install / "data" / "forest.map", "forest 1.0");
  fs::remove(install / "data" / "extra" / "d.bin");
  const std::string kept = stages();
  ASSERT_TRUE(updater.apply(checked(), {}, error, nullptr)) << error;
  EXPECT_EQ(readBytes(install / "data" / "forest.map"), "forest 2.0");
  EXPECT_EQ(readBytes(install / "data" / "extra" / "d.bin"), "d 2.0");
  EXPECT_EQ(stages(), kept);
  const std::string log = nginx.accessLog(13);  // 2 x (manifest, signature), 6 + 3 files
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 13) << log;
}

// Whatever the server does wrong, the install stays byte for byte as it was. The release replaces
// two files and adds three; it fails at the check, the 3rd download, the 4th install or as older.
TEST_F(Updater, HostileServersChangeNothing) {
  const std::string httpError = curl_easy_strerror(CURLE_HTTP_RETURNED_ERROR);
  const fs::path served = channelFolder(www.path());
  const auto resign = [&](const std::string& from, const std::string& to) {
    return [&, from, to] {
      std::string manifest = readBytes(served / "manifest.json");
      manifest.replace(manifest.find(from), from.size(), to);
      publishRawManifest(www.path(), manifest, signHex(manifest));
    };
  };
  const struct {
    std::string name;
    std::function<void()> tamper;
    std::string error;
  } table[] = {
      {"beta manifest in the stable folder", resign("\"stable\"", "\"beta\""),
       "manifest_channel_or_platform_mismatch"},
      {"manifest changed after signing",
       [&] { writeBytes(served / "manifest.json", readBytes(served / "manifest.json") + " "); },
       "manifest_signature_verify_failed"},
      {"no signature", [&] { fs::remove(served / "manifest.sig"); }, httpError},
      {"3rd file other bytes", [&] { writeBytes(served / "files/data/forest.map", "forest 2.1"); },
       "download_hash_mismatch:data/forest.map"},
      {"3rd file missing", [&] { fs::remove(served / "files/data/forest.map"); }, httpError},
      {"a file where the 4th file's folder must go",
       [&] { writeBytes(install / "data" / "extra", "in the way"); },
       "update_destination_failed:data/extra/d.bin"},
      {"4th file is the 3rd again",
       resign("extra/d.bin\", \"sha256\": \"" + sha256Hex("d 2.0"),
              "forest.map\", \"sha256\": \"" + sha256Hex("forest 2.0")),
       "update_install_failed:data/forest.map"},
      {"an older release", resign("\"2.0.0\"", "\"0.9.99\""), "update_downgrade_blocked:0.9.99"},
      {"no server configured", [&] { updater.server.clear(); }, "update_server_not_configured"},
  };
  writeBytes(install / "tarn-hollow", "game 1.0");
  writeBytes(install / "data" / "a.bin", "a 1.0");
  for (const auto& row : table) {
    SCOPED_TRACE(row.name);
    fs::remove_all(www / "stable");
    fs::remove_all(install / "data" / "extra");
    publishRelease(www.path(), kFiveFiles);
    updater.server = nginx.url();
    row.tamper();
    const FolderSnapshot before = installSnapshot(install.path());
    UpdatePlan plan;
    std::string error;
    EXPECT_FALSE(updater.check("stable", plan, error) && updater.apply(plan, {}, error, nullptr));
    EXPECT_EQ(error, row.error);
    EXPECT_EQ(snapshotDiff(before, installSnapshot(install.path())), "");
    // Only a failed download removes the staging folder; the install phase keeps it.
    EXPECT_TRUE(row.error.starts_with("update_") || stages().empty()) << stages();
  }
}

}  // namespace
}  // namespace th::test
