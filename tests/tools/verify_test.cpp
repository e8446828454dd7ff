// tarn-hollow-publish verify against a real nginx, and the tool's help and version.
#include <gtest/gtest.h>

#include <memory>

#include "tests/support/digest.h"
#include "tests/support/nginx_server.h"
#include "tests/support/release_builder.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;

Release sample() {
  Release release;
  release.files = {{"tarn-hollow", "#!/bin/sh\n", true},
                   {"data/world.pak", std::string(70000, 'w')},
                   {"data/a.txt", "a"}};
  return release;
}

struct Served {
  TempDir root;
  std::unique_ptr<NginxServer> nginx;

  explicit Served(const Release& release) {
    publishRelease(root.path(), release);
    nginx = std::make_unique<NginxServer>(root.path());
  }
};

ProcessResult verify(const std::string& url) {
  return runProcess({TH_PUBLISH_DEVKEY, "verify", "--url", url});
}

// A failed verification: exit status 1 and one line per problem.
void expectBad(const ProcessResult& result, const std::string& url,
               const std::vector<std::string>& lines) {
  std::string expected =
      "tarn-hollow-publish: " + url + "/stable/linux does not serve a good release:\n";
  for (const std::string& line : lines) expected += "  " + line + "\n";
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.err, expected);
}

TEST(Verify, PassesAServedReleaseAndNamesEveryBadFile) {
  Served served(sample());
  const std::string url = served.nginx->url();
  const ProcessResult good = verify(url);
  EXPECT_EQ(good.exitCode, 0) << good.err;
  EXPECT_EQ(good.out,
            "verified 1.0.0 at " + url +
                "/stable/linux: 3 files, 70011 bytes, each as its signed manifest says\n");

  const fs::path files = channelFolder(served.root.path()) / "files";
  writeBytes(files / "data" / "a.txt", "b");
  fs::remove(files / "tarn-hollow");
  expectBad(verify(url), url,
            {"tarn-hollow: cannot be downloaded: HTTP response code said error",
             "data/a.txt: SHA-256 " + sha256Hex("b") + ", the manifest says " + sha256Hex("a")});
}

TEST(Verify, RefusesWhatEveryLauncherWouldRefuse) {
  Release otherKey = sample(), beta = sample(), wrongSize = sample();
  otherKey.privateKey = TH_DEV_RSA_PRIVATE_KEY;
  beta.channel = "beta";
  wrongSize.files.push_back({"data/size.txt", "s", false, 2});
  const std::vector<std::pair<Release, std::string>> table = {
      {otherKey, "the manifest is refused: manifest_signature_verify_failed"},
      {beta, "the manifest is for beta/linux"},
      {wrongSize, "data/size.txt: 1 bytes, the manifest says 2"}};
  for (const auto& [release, line] : table) {
    SCOPED_TRACE(line);
    Served served(release);
    // The stable channel's folder serves whatever the table's release is.
    if (release.channel == "beta") fs::create_directory_symlink("beta", served.root / "stable");
    expectBad(verify(served.nginx->url()), served.nginx->url(), {line});
  }
  const std::string nobody = "http://127.0.0.1:" + std::to_string(freeLocalPort());
  expectBad(verify(nobody), nobody, {"the manifest cannot be fetched: Couldn't connect to server"});
}

TEST(PublishCommandLine, HelpAndVersionGoToStandardOutput) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> table = {
      {{"--help"}, "usage: tarn-hollow-publish keygen --out DIR\n       tarn-hollow-publish "},
      {{"-h"}, "usage: tarn-hollow-publish keygen --out DIR\n       tarn-hollow-publish "},
      {{"keygen", "-h"}, "usage: tarn-hollow-publish keygen --out DIR\n"},
      {{"release", "--from", "x", "--help"}, "usage: tarn-hollow-publish release --from"},
      {{"verify", "-h"}, "usage: tarn-hollow-publish verify --url URL"},
      {{"--version"}, "tarn-hollow-publish " TH_VERSION "\n"}};
  for (const auto& [args, start] : table) {
    SCOPED_TRACE(args[0]);
    std::vector<std::string> argv{TH_PUBLISH_DEVKEY};
    argv.insert(argv.end(), args.begin(), args.end());
    const ProcessResult result = runProcess(argv);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out.substr(0, start.size()), start);
    EXPECT_EQ(result.err, "");
  }
}

}  // namespace
}  // namespace th::test
