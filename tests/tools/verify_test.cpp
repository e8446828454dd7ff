// tarn-hollow-publish verify against a real nginx.
#include <gtest/gtest.h>

#include "tests/support/files.h"
#include "tests/support/nginx_server.h"
#include "tests/support/release_builder.h"

namespace th::test {
namespace {

void expectVerify(const std::string& url, const std::vector<std::string>& problems) {
  const ProcessResult result = runProcess({TH_PUBLISH_DEVKEY, "verify", "--url", url});
  std::string report =
      "tarn-hollow-publish: " + url + "/stable/linux does not serve a good release:\n";
  for (const std::string& line : problems) report += "  " + line + "\n";
  EXPECT_EQ(result.exitCode, problems.empty() ? 0 : 1) << result.err;
  EXPECT_EQ(result.err, problems.empty() ? "" : report);
}

TEST(Verify, PassesAServedReleaseAndNamesWhateverIsBad) {
  TempDir root;
  NginxServer nginx(root.path());
  Release release;
  release.files = {{"tarn-hollow", "#!/bin/sh\n", true}, {"data/a.txt", "a"}};
  publishRelease(root.path(), release);
  expectVerify(nginx.url(), {});
  const std::filesystem::path files = channelFolder(root.path()) / "files";
  writeBytes(files / "data" / "a.txt", "b");
  std::filesystem::remove(files / "tarn-hollow");
  expectVerify(nginx.url(),
               {"tarn-hollow: cannot be downloaded: HTTP response code said error",
                "data/a.txt: SHA-256 " + sha256Hex("b") + ", the manifest says " + sha256Hex("a")});
  release.files.push_back({"data/size.txt", "s", false, 2});
  publishRelease(root.path(), release);
  expectVerify(nginx.url(), {"data/size.txt: 1 bytes, the manifest says 2"});
  const std::string manifest = publishRelease(root.path(), release);
  publishRawManifest(root.path(), manifest, signHex(manifest, TH_DEV_RSA_PRIVATE_KEY));
  expectVerify(nginx.url(), {"the manifest is refused: manifest_signature_verify_failed"});
  expectVerify("http://127.0.0.1:1",  // nothing listens on port 1
               {"the manifest cannot be fetched: Couldn't connect to server"});
}

}  // namespace
}  // namespace th::test
