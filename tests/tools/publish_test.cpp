// tarn-hollow-publish as a studio runs it: releases checked and served by a real nginx, refusals,
// keys, verify and the command line.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/files.h"
#include "tests/support/nginx_server.h"
#include "tests/support/process.h"
#include "tests/support/release_builder.h"
#include "update/signature.h"
#include "update/updater.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;

const std::string kNotes =
    "Faster loading.\nFixed a \"ghost\" crash in C:\\Games\\Tarn.\r\n\tCaf\xc3\xa9 {braces} [and] "
    "\"files\": [ ] stay text.";

// Every punctuation mark a release name may hold; each must survive URL, server and parser.
const std::string kOddName = "data/odd-name_(v2)+final;@'!$&*,=~.txt";

struct Studio {
  TempDir scratch;
  fs::path release = scratch / "release";
  fs::path server = scratch / "server";
  fs::path notes = scratch / "notes.txt";

  Studio() {
    writeBytes(release / "tarn-hollow", "#!/bin/sh\necho game 1.1.0\n");
    fs::permissions(release / "tarn-hollow", fs::perms(0755));
    writeBytes(release / "data" / "levels" / "one.dat", std::string(70000, 'L'));
    writeBytes(release / "data" / "empty.flag", "");
    fs::create_symlink("levels/one.dat", release / "data" / "linked.dat");
    writeBytes(release / kOddName, "odd");
    writeBytes(notes, kNotes);
  }

  ProcessResult publish(const std::string& version, std::vector<std::string> extra = {},
                        const char* tool = TH_PUBLISH_DEVKEY,
                        const char* key = TH_DEV_PRIVATE_KEY) const {
    std::vector<std::string> argv{tool,    "release", "--from", release.string(), "--version",
                                  version, "--key",   key,      "--server-root",  server.string()};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return runProcess(argv);
  }
};

std::vector<std::string> plannedPaths(const th::update::UpdatePlan& plan) {
  std::vector<std::string> paths;
  for (const auto& file : plan.files) paths.push_back(file.path);
  return paths;
}

TEST(Publish, ReleaseIsCheckedAndAppliedByTheEngineThenUpdatedIncrementally) {
  Studio studio;
  writeBytes(studio.release / "data" / "big.pak", std::string(17u << 20, 'B'));  // shows progress
  const auto published =
      studio.publish("1.1.0", {"--notes", studio.notes.string(), "--mandatory",
                               "--minimum-online-version", "1.0.5", "--protocol-version", "3"});
  ASSERT_EQ(published.exitCode, 0) << published.err;
  EXPECT_EQ(published.out, "published 1.1.0 (stable/linux): 6 files, 17965821 bytes, in " +
                               (studio.server / "stable" / "linux").string() + "\n");
  EXPECT_NE(published.err.find("hashing: 6/6 files, 17.1 of 17.1 MiB (100%)\n"), std::string::npos)
      << published.err;
  NginxServer nginx(studio.server);
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  TempDir install;
  prepareInstall(install.path(), nginx.url(), "1.0.0");
  th::update::Updater updater(install.path());
  updater.server = nginx.url();

  th::update::UpdatePlan plan;
  std::string error;
  ASSERT_TRUE(updater.check("stable", plan, error)) << error;
  EXPECT_EQ(plan.manifest.version, "1.1.0");
  EXPECT_EQ(plan.manifest.releaseNotes, kNotes);
  EXPECT_TRUE(plan.manifest.mandatory);
  EXPECT_EQ(plan.manifest.minimumOnlineVersion, "1.0.5");
  EXPECT_EQ(plan.manifest.protocolVersion, 3);
  EXPECT_EQ(plannedPaths(plan),
            (std::vector<std::string>{"data/big.pak", "data/empty.flag", "data/levels/one.dat",
                                      "data/linked.dat", kOddName, "tarn-hollow"}));
  ASSERT_TRUE(updater.apply(plan, {}, error, nullptr)) << error;
  EXPECT_EQ(readBytes(install / "tarn-hollow"), readBytes(studio.release / "tarn-hollow"));
  EXPECT_EQ(fileMode(install / "tarn-hollow"), 0755u);
  EXPECT_EQ(readBytes(install / "data" / "linked.dat"), std::string(70000, 'L'));
  EXPECT_EQ(readBytes(install / kOddName), "odd");
  EXPECT_EQ(readBytes(install / "data" / "game_version"), "1.1.0\n");

  writeBytes(studio.release / "tarn-hollow", "#!/bin/sh\necho game 1.2.0\n");
  fs::permissions(studio.release / "tarn-hollow", fs::perms(0644));
  ASSERT_EQ(studio.publish("1.2.0").exitCode, 0);
  ASSERT_TRUE(updater.check("stable", plan, error)) << error;
  EXPECT_EQ(plan.manifest.version, "1.2.0");
  EXPECT_EQ(plannedPaths(plan), std::vector<std::string>{"tarn-hollow"});
  EXPECT_FALSE(plan.files[0].executable);
}

TEST(Keygen, WritesAPairWhosePrintedFingerprintIsThePublicFilesHash) {
  TempDir dir;
  const auto made = runProcess({TH_PUBLISH_DEVKEY, "keygen", "--out", dir / "keys"});
  ASSERT_EQ(made.exitCode, 0) << made.err;
  const fs::path publicKey = dir / "keys" / "update-public-key.pem";
  const fs::path privateKey = dir / "keys" / "update-private-key.pem";
  const std::string fingerprint = th::update::sha256File(publicKey);
  EXPECT_NE(made.out.find("fingerprint: " + fingerprint + "\n"), std::string::npos) << made.out;
  EXPECT_EQ(fileMode(privateKey), 0600u);
  const auto derived = runProcess({"/usr/bin/openssl", "pkey", "-in", privateKey, "-pubout"});
  EXPECT_EQ(derived.out, readBytes(publicKey));

  const auto again = runProcess({TH_PUBLISH_DEVKEY, "keygen", "--out", dir / "keys"});
  EXPECT_EQ(again.exitCode, 1);
  EXPECT_EQ(readBytes(publicKey), derived.out);
}

// The tool names every problem at once, and a refused release leaves no trace on the server.
void expectRefused(const Studio& studio, const ProcessResult& result,
                   const std::vector<std::string>& lines) {
  std::string expected = "tarn-hollow-publish: refused, nothing was published:\n";
  for (const std::string& line : lines) expected += "  " + line + "\n";
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.err, expected);
  EXPECT_FALSE(fs::exists(studio.server));
}

TEST(Publish, RefusesBadNamesLinksFilesValuesAndKeysAllAtOnce) {
  Studio s;
  // Which names the launcher refuses is the engine's own table; one of them stands for all here.
  for (const char* name : {"data/update_public_key.pem", "caf\xc3\xa9.txt", "data/game_version",
                           "bin/tarn-hollow-launcher", "tarn-hollow-update-helper/readme",
                           ".tarnhollow-update", "100%.txt"}) {
    writeBytes(s.release / name, "x");
  }
  fs::create_symlink("../../notes.txt", s.release / "data" / "up");
  fs::create_symlink("levels", s.release / "data" / "folder");
  fs::create_symlink("missing", s.release / "broken");
  mkfifo((s.release / "pipe").c_str(), 0644);
  writeBytes(s.notes, "beep\x07");
  s.server = s.release / "srv";

  const auto result =
      s.publish("1..2",
                {"--notes", s.notes.string(), "--minimum-online-version", "1.2147483648",
                 "--protocol-version", "-1", "--channel", "a/b", "--platform", ".."},
                TH_PUBLISH_DEVKEY, TH_DEV_PUBLIC_KEY);

  expectRefused(
      s, result,
      {"--version '1..2' is not a dotted number like 1.4.2",
       "--minimum-online-version '1.2147483648' is not a dotted number like 1.4.0",
       "--protocol-version '-1' is not a whole number from 0 to 2147483647",
       "--channel 'a/b' must be letters, digits, '.', '_' or '-', not starting with '.'",
       "--platform '..' must be letters, digits, '.', '_' or '-', not starting with '.'",
       s.notes.string() + ": release notes hold a control character other than tab or line end, "
                          "which the launcher cannot read",
       s.server.string() + ": the server root lies inside the release",
       std::string(TH_DEV_PUBLIC_KEY) + ": not an unencrypted PEM private key",
       ".tarnhollow-update: would displace the updater's work folder",
       "100%.txt: characters the launcher cannot fetch (names may hold letters, digits and - . _ "
       "~ ! $ & ' ( ) * + , ; = @)",
       "bin/tarn-hollow-launcher: the launcher takes any file named tarn-hollow-launcher for "
       "itself and hands it to the update helper on every start; it belongs at the top",
       "broken: cannot be read (broken symbolic link: No such file or directory)",
       "caf\xc3\xa9.txt: characters the launcher cannot fetch (names may hold letters, digits "
       "and - . _ ~ ! $ & ' ( ) * + , ; = @)",
       "data/folder: symbolic link to a folder (link the files instead)",
       "data/game_version: the launcher's version marker: it rewrites the file after every "
       "update, so every start would download it again",
       "data/up: symbolic link leaving the release folder",
       "data/update_public_key.pem: the launcher refuses this name", "pipe: not a regular file",
       "tarn-hollow-update-helper/readme: lies below tarn-hollow-update-helper, a file in every "
       "install"});
}

// The manifest is read back as every launcher will read it: a file called "size" makes the
// launcher's field search take its name for the size, so the release is refused.
TEST(Publish, RefusesAManifestTheLauncherWouldMisread) {
  Studio studio;
  writeBytes(studio.release / "size", "x");
  expectRefused(studio, studio.publish("1.1.0"),
                {"the launcher would misread the manifest's files[4].size"});
}

TEST(Publish, RefusesEmptyOrMissingReleasesAndKeysThatCannotSignOrAreNotPinned) {
  Studio empty;
  fs::remove_all(empty.release);
  fs::create_directories(empty.release / "empty");
  const std::string ed25519 = (empty.scratch / "ed.pem").string();
  runProcess({"/usr/bin/openssl", "genpkey", "-algorithm", "ed25519", "-out", ed25519});
  expectRefused(empty, empty.publish("1.1.0", {}, TH_PUBLISH_DEVKEY, ed25519.c_str()),
                {ed25519 + ": this key cannot make SHA-256 signatures (use EC or RSA)",
                 empty.release.string() + ": holds no files"});

  Studio missing;
  fs::remove_all(missing.release);
  const std::string devFingerprint = th::update::sha256Bytes(readBytes(TH_DEV_PUBLIC_KEY));
  expectRefused(missing, missing.publish("1.1.0", {}, TH_PUBLISH_RELEASE_PIN),
                {std::string(TH_DEV_PRIVATE_KEY) + ": its public key has fingerprint " +
                     devFingerprint + ", but this build pins " +
                     "3b9e0c71a5d24f86e1c7b0395a6d8f24c1e07b3a95d26f8e4c0b71a3d5e9f628" +
                     " (build with -DTH_UPDATE_KEY_FINGERPRINT=" + devFingerprint + ")",
                 missing.release.string() + ": not a readable folder"});
}

// Misuse exits with 2 naming the problem before the usage; help and version go to standard output.
TEST(Publish, CommandLineMannersForMisuseHelpAndVersion) {
  const struct {
    std::vector<std::string> args;
    int exitCode;
    std::string start;  // of standard error after misuse, of standard output otherwise
  } table[] = {
      {{}, 2, "missing command"},
      {{"upload"}, 2, "unknown command 'upload'"},
      {{"keygen"}, 2, "missing --out"},
      {{"verify"}, 2, "missing --url"},
      {{"release", "--from"}, 2, "missing value for --from"},
      {{"release", "--from", "r", "--version", "1", "--key", "k"}, 2, "missing --server-root"},
      {{"release", "--mandatory", "--mandatory"}, 2, "repeated --mandatory"},
      {{"release", "--force"}, 2, "unknown argument '--force'"},
      {{"-h"}, 0, "usage: tarn-hollow-publish keygen --out DIR\n       tarn"},
      {{"release", "--help"}, 0, "usage: tarn-hollow-publish release --from"},
      {{"--version"}, 0, "tarn-hollow-publish " TH_VERSION "\n"},
  };
  for (const auto& row : table) {
    SCOPED_TRACE(row.start);
    std::vector<std::string> argv{TH_PUBLISH_DEVKEY};
    argv.insert(argv.end(), row.args.begin(), row.args.end());
    const auto result = runProcess(argv);
    EXPECT_EQ(result.exitCode, row.exitCode);
    if (row.exitCode == 2) {
      EXPECT_EQ(result.err.substr(0, result.err.find("usage:")),
                "tarn-hollow-publish: " + row.start + "\n");
    } else {
      EXPECT_EQ(result.out.substr(0, row.start.size()), row.start);
    }
  }
}

// What players will download, checked end to end through the engine.
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
