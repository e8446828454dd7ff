#include <curl/curl.h>
#include <gtest/gtest.h>

#include <functional>

#include "tests/support/process.h"
#include "tests/update/update_fixture.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;
using update::UpdatePlan;

const std::string kLauncher = "tarn-hollow-launcher";

Release smallRelease(const std::string& version = "1.2.0") {
  Release release;
  release.version = version;
  release.files = {{"tarn-hollow", "game binary v" + version, true},
                   {"data/maps/lake.map", "lake map " + version},
                   {"data/empty.flag", ""}};
  return release;
}

// A plan the failing checks must leave exactly as it was.
UpdatePlan sentinelPlan() {
  UpdatePlan plan;
  plan.manifest.version = "sentinel";
  plan.files.push_back({"kept.txt", std::string(64, 'a'), 3, false, "/nowhere/kept.txt", true});
  plan.totalBytes = 3;
  plan.launcherUpdate = true;
  return plan;
}

void expectSentinel(const UpdatePlan& plan) {
  EXPECT_EQ(plan.manifest.version, "sentinel");
  ASSERT_EQ(plan.files.size(), 1u);
  EXPECT_EQ(plan.files[0].path, "kept.txt");
  EXPECT_EQ(plan.totalBytes, 3u);
  EXPECT_TRUE(plan.launcherUpdate);
}

std::string paths(const UpdatePlan& plan) {
  std::string text;
  for (const auto& file : plan.files) text += file.path + (file.missing ? " (missing)" : "") + ";";
  return text;
}

using CheckTest = UpdateServerTest;

TEST_F(CheckTest, NoServerConfiguredFailsWithoutAnyRequest) {
  publishRelease(www.path(), smallRelease());
  updater.server.clear();
  UpdatePlan plan = sentinelPlan();
  std::string error;
  EXPECT_FALSE(updater.check("stable", plan, error));
  EXPECT_EQ(error, "update_server_not_configured");
  expectSentinel(plan);
  EXPECT_EQ(nginx.accessLog(), "");
}

TEST_F(CheckTest, ChannelFolderHasExactlyOneSlashAtEachSeam) {
  publishRelease(www / "updates", smallRelease());
  for (const std::string base : {"/updates", "/updates/", "/updates//"}) {
    updater.server = nginx.url() + base;
    const UpdatePlan plan = checked();
    EXPECT_EQ(plan.manifest.version, "1.2.0") << base;
  }
  const std::string log = nginx.accessLog(6);
  EXPECT_NE(log.find("GET /updates/stable/linux/manifest.json 200"), std::string::npos) << log;
  EXPECT_NE(log.find("GET /updates/stable/linux/manifest.sig 200"), std::string::npos) << log;
  EXPECT_NE(log.find("GET /updates//stable/linux/manifest.json"), std::string::npos) << log;
}

TEST_F(CheckTest, SignatureLineEndsAreIgnoredButLeadingBlanksAreNot) {
  const std::string manifest = manifestText(smallRelease());
  const std::string signature = signHex(manifest);
  struct Case {
    std::string signature, error;
  };
  const std::vector<Case> cases = {
      {signature + "\r\n", ""},
      {signature + "   \t\n\n", ""},
      {" " + signature, "manifest_signature_invalid_hex"},
      {signature + "\r\nx", "manifest_signature_invalid_hex"},
  };
  for (const Case& c : cases) {
    publishRawManifest(www.path(), manifest, c.signature);
    UpdatePlan plan = sentinelPlan();
    std::string error;
    EXPECT_EQ(updater.check("stable", plan, error), c.error.empty()) << error;
    EXPECT_EQ(error, c.error);
  }
}

// A P-256 key the install does not trust, made for this run.
fs::path strangerKey(const fs::path& folder) {
  const fs::path key = folder / "stranger.pem";
  const ProcessResult made =
      runProcess({"/usr/bin/openssl", "genpkey", "-algorithm", "EC", "-pkeyopt",
                  "ec_paramgen_curve:P-256", "-out", key.string()});
  EXPECT_EQ(made.exitCode, 0) << made.err;
  return key;
}

TEST_F(CheckTest, HostileServersChangeNothing) {
  const std::string httpError = curl_easy_strerror(CURLE_HTTP_RETURNED_ERROR);
  const fs::path stranger = strangerKey(www.path());
  struct Case {
    std::string name;
    std::function<void()> publish;
    std::string error;
  };
  const auto withRelease = [&](std::function<void(Release&)> change) {
    return [&, change] {
      Release release = smallRelease();
      change(release);
      publishRelease(www.path(), release);
    };
  };
  const auto raw = [&](std::function<void(std::string&, std::string&)> change) {
    return [&, change] {
      std::string manifest = manifestText(smallRelease());
      std::string signature = signHex(manifest);
      change(manifest, signature);
      publishRawManifest(www.path(), manifest, signature);
    };
  };
  const auto without = [&](const std::string& name) {
    return [&, name] {
      publishRelease(www.path(), smallRelease());
      fs::remove(channelFolder(www.path()) / name);
    };
  };
  const std::vector<Case> cases = {
      {"only a beta release", withRelease([](Release& r) { r.channel = "beta"; }), httpError},
      {"beta manifest in the stable folder", raw([](std::string& m, std::string& s) {
         m.replace(m.find("\"stable\""), 8, "\"beta\"");
         s = signHex(m);
       }),
       "manifest_channel_or_platform_mismatch"},
      {"windows manifest in the linux folder", raw([](std::string& m, std::string& s) {
         m.replace(m.find("\"linux\""), 7, "\"windows\"");
         s = signHex(m);
       }),
       "manifest_channel_or_platform_mismatch"},
      {"manifest changed after signing",
       raw([](std::string& m, std::string&) { m.replace(m.find("1.2.0"), 5, "9.2.0"); }),
       "manifest_signature_verify_failed"},
      {"signed by another key",
       raw([&](std::string& m, std::string& s) { s = signHex(m, stranger); }),
       "manifest_signature_verify_failed"},
      {"signed but malformed", raw([](std::string& m, std::string& s) {
         m.replace(m.find("tarn-hollow"), 11, "other-game");
         s = signHex(m);
       }),
       "manifest_header_invalid"},
      {"no signature file", without("manifest.sig"), httpError},
      {"no manifest file", without("manifest.json"), httpError},
  };
  for (const Case& c : cases) {
    std::error_code ignored;
    fs::remove_all(www / "stable", ignored);
    fs::remove_all(www / "beta", ignored);
    c.publish();
    const FolderSnapshot before = snapshotFolder(install.path());
    UpdatePlan plan = sentinelPlan();
    std::string error;
    EXPECT_FALSE(updater.check("stable", plan, error)) << c.name;
    EXPECT_EQ(error, c.error) << c.name;
    expectSentinel(plan);
    EXPECT_EQ(snapshotDiff(before, snapshotFolder(install.path())), "") << c.name;
  }
}

TEST_F(CheckTest, PlansWhatIsMissingOrDifferentByDigestAlone) {
  Release release = smallRelease();
  release.files = {
      {"current.txt", "same bytes"},
      {"stale.txt", "new bytes"},
      {"absent/deep/new.txt", "brand new", false, 100},
      {"folder-here", "a file, once installed", false, 7},
      {"wrong-size.txt", "right digest", false, 999},
      {"bin/" + kLauncher, "new launcher", true, 12},
  };
  publishRelease(www.path(), release);
  writeBytes(install / "current.txt", "same bytes");
  writeBytes(install / "stale.txt", "old bytes");
  fs::create_directories(install / "folder-here");
  writeBytes(install / "wrong-size.txt", "right digest");
  writeBytes(install / "bin" / kLauncher, "old launcher");

  const UpdatePlan plan = checked();
  EXPECT_EQ(paths(plan),
            "stale.txt;absent/deep/new.txt (missing);folder-here (missing);bin/" + kLauncher + ";");
  EXPECT_EQ(plan.totalBytes, 9u + 100u + 7u + 12u);
  EXPECT_TRUE(plan.launcherUpdate);
  ASSERT_EQ(plan.files.size(), 4u);
  EXPECT_EQ(plan.files[1].destination, install / "absent/deep/new.txt");
  EXPECT_EQ(plan.files[3].sha256, sha256Hex("new launcher"));
  EXPECT_TRUE(plan.files[3].executable);
  EXPECT_EQ(plan.manifest.files.size(), 6u);
}

TEST_F(CheckTest, CurrentInstallGivesAnEmptyPlan) {
  Release release = smallRelease();
  release.files.push_back({kLauncher, "launcher", true});
  publishRelease(www.path(), release);
  for (const ReleaseFile& file : release.files) writeBytes(install / file.path, file.bytes);
  const UpdatePlan plan = checked();
  EXPECT_TRUE(plan.files.empty());
  EXPECT_EQ(plan.totalBytes, 0u);
  EXPECT_FALSE(plan.launcherUpdate);
  EXPECT_EQ(plan.manifest.version, "1.2.0");
}

}  // namespace
}  // namespace th::test
