#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/nginx_server.h"
#include "tests/support/process.h"
#include "tests/support/release_builder.h"
#include "tests/support/temp_dir.h"
#include "update/signature.h"
#include "update/updater.h"

namespace fs = std::filesystem;
using th::test::readBytes;
using th::test::writeBytes;

namespace {

const std::string kNotes =
    "Faster loading.\nFixed a \"ghost\" crash in C:\\Games\\Tarn.\r\n\tCaf\xc3\xa9 {braces} [and] "
    "\"files\": [ ] stay text.";

// Every punctuation mark a release name may hold; each must survive URL, server and parser.
const std::string kOddName = "data/odd-name_(v2)+final;@'!$&*,=~.txt";

struct Studio {
  th::test::TempDir scratch;
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

  th::test::ProcessResult publish(const std::string& version, std::vector<std::string> extra = {},
                                  const char* tool = TH_PUBLISH_DEVKEY,
                                  const char* key = TH_DEV_PRIVATE_KEY) const {
    std::vector<std::string> argv{tool,    "release", "--from", release.string(), "--version",
                                  version, "--key",   key,      "--server-root",  server.string()};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return th::test::runProcess(argv);
  }
};

unsigned modeOf(const fs::path& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 ? (info.st_mode & 07777) : 0;
}

std::vector<std::string> plannedPaths(const th::update::UpdatePlan& plan) {
  std::vector<std::string> paths;
  for (const auto& file : plan.files) paths.push_back(file.path);
  return paths;
}

TEST(Publish, ReleaseIsCheckedAndAppliedByTheEngineThenUpdatedIncrementally) {
  Studio studio;
  const auto published =
      studio.publish("1.1.0", {"--notes", studio.notes.string(), "--mandatory",
                               "--minimum-online-version", "1.0.5", "--protocol-version", "3"});
  ASSERT_EQ(published.exitCode, 0) << published.err;
  EXPECT_EQ(published.out, "published 1.1.0 (stable/linux): 5 files, 140029 bytes, in " +
                               (studio.server / "stable" / "linux").string() + "\n");
  th::test::NginxServer nginx(studio.server);
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  th::test::TempDir install;
  th::test::prepareInstall(install.path(), nginx.url(), "1.0.0");
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
            (std::vector<std::string>{"data/empty.flag", "data/levels/one.dat", "data/linked.dat",
                                      kOddName, "tarn-hollow"}));
  EXPECT_EQ(plan.totalBytes, 140029u);
  ASSERT_TRUE(updater.apply(plan, {}, error, nullptr)) << error;
  EXPECT_EQ(readBytes(install / "tarn-hollow"), readBytes(studio.release / "tarn-hollow"));
  EXPECT_EQ(modeOf(install / "tarn-hollow"), 0755u);
  EXPECT_EQ(readBytes(install / "data" / "linked.dat"), std::string(70000, 'L'));
  EXPECT_EQ(readBytes(install / kOddName), "odd");
  EXPECT_EQ(readBytes(install / "data" / "game_version"), "1.1.0\n");

  writeBytes(studio.release / "tarn-hollow", "#!/bin/sh\necho game 1.2.0\n");
  fs::permissions(studio.release / "tarn-hollow", fs::perms(0644));
  ASSERT_EQ(studio.publish("1.2.0").exitCode, 0);
  ASSERT_TRUE(updater.check("stable", plan, error)) << error;
  EXPECT_EQ(plan.manifest.version, "1.2.0");
  EXPECT_EQ(plan.manifest.releaseNotes, "");
  EXPECT_EQ(plannedPaths(plan), std::vector<std::string>{"tarn-hollow"});
  EXPECT_FALSE(plan.files[0].executable);
}

std::string hexToBytes(const std::string& hex) {
  std::string bytes;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

TEST(Publish, RsaKeySignsWhatOpensslVerifies) {
  Studio studio;
  const auto published =
      studio.publish("2.0", {"--channel", "beta"}, TH_PUBLISH_RSA, TH_DEV_RSA_PRIVATE_KEY);
  ASSERT_EQ(published.exitCode, 0) << published.err;
  const fs::path channel = th::test::channelFolder(studio.server, "beta");
  writeBytes(studio.scratch / "sig.bin", hexToBytes(readBytes(channel / "manifest.sig")));

  const auto verified = th::test::runProcess(
      {"/usr/bin/openssl", "dgst", "-sha256", "-verify", TH_DEV_RSA_PUBLIC_KEY, "-signature",
       (studio.scratch / "sig.bin").string(), (channel / "manifest.json").string()});
  EXPECT_EQ(verified.out, "Verified OK\n") << verified.err;
}

TEST(Publish, LargeReleaseShowsHashingProgress) {
  Studio studio;
  writeBytes(studio.release / "data" / "big.pak", std::string(17u << 20, 'B'));
  const auto published = studio.publish("1.1.0");
  ASSERT_EQ(published.exitCode, 0) << published.err;
  EXPECT_NE(published.err.find("hashing: 6/6 files, 17.1 of 17.1 MiB (100%)\n"), std::string::npos)
      << published.err;
}

TEST(Keygen, WritesAPairWhosePrintedFingerprintIsThePublicFilesHash) {
  th::test::TempDir dir;
  const auto made = th::test::runProcess({TH_PUBLISH_DEVKEY, "keygen", "--out", dir / "keys"});
  ASSERT_EQ(made.exitCode, 0) << made.err;
  const fs::path publicKey = dir / "keys" / "update-public-key.pem";
  const fs::path privateKey = dir / "keys" / "update-private-key.pem";
  const std::string fingerprint = th::update::sha256File(publicKey);
  EXPECT_NE(made.out.find("fingerprint: " + fingerprint + "\n"), std::string::npos) << made.out;
  EXPECT_EQ(modeOf(privateKey), 0600u);
  const auto derived =
      th::test::runProcess({"/usr/bin/openssl", "pkey", "-in", privateKey, "-pubout"});
  EXPECT_EQ(derived.out, readBytes(publicKey));

  const auto again = th::test::runProcess({TH_PUBLISH_DEVKEY, "keygen", "--out", dir / "keys"});
  EXPECT_EQ(again.exitCode, 1);
  EXPECT_EQ(readBytes(publicKey), derived.out);
}

// One refused release: what to break, and the exact lines the tool must print.
struct Refusal {
  std::string name;
  std::function<void(Studio&)> breakIt;
  std::vector<std::string> lines;  // after the "refused" header
  std::string version = "1.1.0";
  std::string key = TH_DEV_PRIVATE_KEY;
  std::vector<std::string> extra = {};
  const char* tool = TH_PUBLISH_DEVKEY;
};

void PrintTo(const Refusal& refusal, std::ostream* out) { *out << refusal.name; }

class PublishRefusal : public testing::TestWithParam<Refusal> {};

// "$R" stands for the release folder and "$S" for the scratch folder, which only exist later.
std::string expand(std::string text, const Studio& studio) {
  for (const auto& [mark, value] : {std::pair{"$R", studio.release.string()},
                                    std::pair{"$S", studio.scratch.path().string()}}) {
    for (size_t at; (at = text.find(mark)) != std::string::npos;) text.replace(at, 2, value);
  }
  return text;
}

TEST_P(PublishRefusal, NamesEveryProblemAndPublishesNothing) {
  Studio studio;
  const Refusal& refusal = GetParam();
  if (refusal.breakIt) refusal.breakIt(studio);
  std::vector<std::string> extra;
  for (const std::string& word : refusal.extra) extra.push_back(expand(word, studio));
  const std::string key = expand(refusal.key, studio);

  const auto result = studio.publish(refusal.version, extra, refusal.tool, key.c_str());

  std::string expected = "tarn-hollow-publish: refused, nothing was published:\n";
  for (const std::string& line : refusal.lines) expected += "  " + expand(line, studio) + "\n";
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.err, expected);
  EXPECT_FALSE(fs::exists(studio.server));
}

const std::string kUnfetchable =
    "characters the launcher cannot fetch (names may hold letters, digits and "
    "- . _ ~ ! $ & ' ( ) * + , ; = @)";

void file(Studio& s, const std::string& path) { writeBytes(s.release / path, "x"); }

const std::string kDevFingerprint = th::update::sha256Bytes(readBytes(TH_DEV_PUBLIC_KEY));

INSTANTIATE_TEST_SUITE_P(
    Table, PublishRefusal,
    testing::Values(
        Refusal{"ReservedNames",
                [](Studio& s) {
                  file(s, "save/slot1.sav");
                  file(s, "userdata/x");
                  file(s, ".tarnhollow-update/stage-1/x");
                  file(s, "data/update_public_key.pem");
                },
                {".tarnhollow-update/stage-1/x: the launcher refuses this name",
                 "data/update_public_key.pem: the launcher refuses this name",
                 "save/slot1.sav: the launcher refuses this name",
                 "userdata/x: the launcher refuses this name"}},
        Refusal{"ColonAndOverlongNames",
                [](Studio& s) {
                  file(s, "a:b");
                  file(s, std::string(120, 'd') + "/" + std::string(120, 'f'));
                },
                {"a:b: the launcher refuses this name", std::string(120, 'd') + "/" +
                                                            std::string(120, 'f') +
                                                            ": the launcher refuses this name"}},
        Refusal{"NamesTheLauncherCannotFetch",
                [](Studio& s) {
                  file(s, "bell\a.txt");
                  file(s, "a b.txt");
                  file(s, "100%.txt");
                  file(s, "what?.txt");
                  file(s, "caf\xc3\xa9.txt");
                  file(s, "back\\slash");
                },
                {"100%.txt: " + kUnfetchable, "a b.txt: " + kUnfetchable,
                 "back\\slash: " + kUnfetchable, "bell\a.txt: " + kUnfetchable,
                 "caf\xc3\xa9.txt: " + kUnfetchable, "what?.txt: " + kUnfetchable}},
        Refusal{"LinksLeavingTheReleaseOrToFolders",
                [](Studio& s) {
                  fs::create_symlink("/etc/hostname", s.release / "abs");
                  fs::create_symlink("../../notes.txt", s.release / "data" / "up");
                  fs::create_symlink("levels", s.release / "data" / "folder");
                },
                {"abs: symbolic link leaving the release folder",
                 "data/folder: symbolic link to a folder (link the files instead)",
                 "data/up: symbolic link leaving the release folder"}},
        Refusal{"UnreadableAndSpecialFiles",
                [](Studio& s) {
                  fs::create_symlink("missing", s.release / "broken");
                  fs::create_symlink("loop-b", s.release / "loop-a");
                  fs::create_symlink("loop-a", s.release / "loop-b");
                  mkfifo((s.release / "pipe").c_str(), 0644);
                },
                {"broken: cannot be read (broken symbolic link: No such file or directory)",
                 "loop-a: cannot be read (broken symbolic link: Too many levels of symbolic "
                 "links)",
                 "loop-b: cannot be read (broken symbolic link: Too many levels of symbolic "
                 "links)",
                 "pipe: not a regular file"}},
        Refusal{"EmptyRelease",
                [](Studio& s) {
                  fs::remove_all(s.release);
                  fs::create_directories(s.release / "empty");
                },
                {"$R: holds no files"}},
        Refusal{"MissingReleaseFolder",
                [](Studio& s) { fs::remove_all(s.release); },
                {"$R: not a readable folder"}},
        Refusal{"VersionWithLetters",
                {},
                {"--version 'v1.2' is not a dotted number like 1.4.2"},
                "v1.2"},
        Refusal{"VersionWithEmptyPart",
                {},
                {"--version '1..2' is not a dotted number like 1.4.2"},
                "1..2"},
        Refusal{"VersionEndingInDot",
                {},
                {"--version '1.2.' is not a dotted number like 1.4.2"},
                "1.2."},
        Refusal{"VersionPartTooLarge",
                {},
                {"--version '1.2147483648' is not a dotted number like 1.4.2"},
                "1.2147483648"},
        Refusal{"BadValuesAllAtOnce",
                [](Studio& s) { writeBytes(s.notes, "beep\x07"); },
                {"--minimum-online-version 'soon' is not a dotted number like 1.4.0",
                 "--protocol-version '-1' is not a whole number from 0 to 2147483647",
                 "--channel 'a/b' must be letters, digits, '.', '_' or '-'",
                 "$S/notes.txt: release notes hold a control character other than tab or line "
                 "end, which the launcher cannot read"},
                "1.1.0",
                TH_DEV_PRIVATE_KEY,
                {"--notes", "$S/notes.txt", "--minimum-online-version", "soon",
                 "--protocol-version", "-1", "--channel", "a/b"}},
        Refusal{"MissingKey",
                {},
                {"$S/none.pem: not an unencrypted PEM private key"},
                "1.1.0",
                "$S/none.pem"},
        Refusal{"PublicKeyInsteadOfPrivate",
                {},
                {std::string(TH_DEV_PUBLIC_KEY) + ": not an unencrypted PEM private key"},
                "1.1.0",
                TH_DEV_PUBLIC_KEY},
        Refusal{"KeyThatCannotSignSha256",
                [](Studio& s) {
                  th::test::runProcess({"/usr/bin/openssl", "genpkey", "-algorithm", "ed25519",
                                        "-out", s.scratch / "ed.pem"});
                },
                {"$S/ed.pem: this key cannot make SHA-256 signatures (use EC or RSA)"},
                "1.1.0",
                "$S/ed.pem"},
        Refusal{"KeyTheBuildDoesNotPin",
                {},
                {std::string(TH_DEV_PRIVATE_KEY) + ": its public key has fingerprint " +
                 kDevFingerprint + ", but this build pins " +
                 "3b9e0c71a5d24f86e1c7b0395a6d8f24c1e07b3a95d26f8e4c0b71a3d5e9f628" +
                 " (build with -DTH_UPDATE_KEY_FINGERPRINT=" + kDevFingerprint + ")"},
                "1.1.0",
                TH_DEV_PRIVATE_KEY,
                {},
                TH_PUBLISH_RELEASE_PIN},
        Refusal{"ServerRootInsideTheRelease",
                [](Studio& s) { s.server = s.release / "srv"; },
                {"$R/srv: the server root lies inside the release"}}),
    [](const testing::TestParamInfo<Refusal>& info) { return info.param.name; });

struct Misuse {
  std::string name;
  std::vector<std::string> args;
  std::string message;
};

void PrintTo(const Misuse& misuse, std::ostream* out) { *out << misuse.name; }

class PublishUsage : public testing::TestWithParam<Misuse> {};

TEST_P(PublishUsage, PrintsUsageAndExits2) {
  std::vector<std::string> argv{TH_PUBLISH_DEVKEY};
  argv.insert(argv.end(), GetParam().args.begin(), GetParam().args.end());
  const auto result = th::test::runProcess(argv);
  EXPECT_EQ(result.exitCode, 2);
  EXPECT_EQ(result.err.substr(0, result.err.find("usage:")),
            "tarn-hollow-publish: " + GetParam().message + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    Table, PublishUsage,
    testing::Values(
        Misuse{"NoCommand", {}, "missing command"},
        Misuse{"UnknownCommand", {"upload"}, "unknown command 'upload'"},
        Misuse{"KeygenWithoutOut", {"keygen"}, "missing --out"},
        Misuse{"ReleaseWithoutKey",
               {"release", "--from", "r", "--version", "1", "--server-root", "s"},
               "missing --key"},
        Misuse{"ValueMissing", {"release", "--from"}, "missing value for --from"},
        Misuse{"FlagTwice", {"release", "--mandatory", "--mandatory"}, "repeated --mandatory"},
        Misuse{"UnknownOption", {"release", "--force"}, "unknown argument '--force'"}),
    [](const testing::TestParamInfo<Misuse>& info) { return info.param.name; });

}  // namespace
