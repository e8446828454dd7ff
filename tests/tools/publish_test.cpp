// The studio's tools as a studio runs them: tarn-hollow-publish and the game package, checked by
// the real launcher and engine through nginx, and twenty players updating on release day.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <iostream>
#include <map>
#include <thread>

#include "tests/launcher/screen_probe.h"
#include "tests/support/update_server.h"
#include "update/updater.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

const std::string kNotes =
    "Faster loading.\nFixed a \"ghost\" crash in C:\\Games\\Tarn.\r\n\tCaf\xc3\xa9 {braces} [and] "
    "\"files\": [ ] stay text.";

// Every punctuation mark a release name may hold; each must survive URL, server and parser.
const char* const kOddName = "data/odd-name_(v2)+final;@'!$&*,=~.txt";

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

  std::vector<std::string> args(const std::string& version, std::vector<std::string> extra = {},
                                const std::string& key = TH_DEV_PRIVATE_KEY) const {
    std::vector<std::string> argv{TH_PUBLISH_DEVKEY, "release",      "--from", release.string(),
                                  "--version",       version,        "--key",  key,
                                  "--server-root",   server.string()};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return argv;
  }
};

// The tool names every problem at once, and a refused release leaves no trace on the server.
void expectRefused(const Studio& studio, const ProcessResult& result,
                   const std::vector<std::string>& lines) {
  std::string expected = "tarn-hollow-publish: refused, nothing was published:\n";
  for (const std::string& line : lines) expected += "  " + line + "\n";
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.err, expected);
  EXPECT_FALSE(fs::exists(studio.server));
}

// What players will download, checked end to end through the engine; any progress comes first.
void expectVerify(const std::string& url, const std::vector<std::string>& problems) {
  const ProcessResult result = runProcess({TH_PUBLISH_DEVKEY, "verify", "--url", url});
  std::string report =
      "tarn-hollow-publish: " + url + "/stable/linux does not serve a good release:\n";
  for (const std::string& line : problems) report += "  " + line + "\n";
  EXPECT_EQ(result.exitCode, problems.empty() ? 0 : 1) << result.err;
  EXPECT_TRUE(result.err.ends_with(problems.empty() ? "(100%)\n" : report)) << result.err;
}

// A plain folder is taken over, unchanged files are hard links, a new player installs from the game
// package, the engine updates incrementally, a failed release changes nothing, verify checks all.
TEST(Publish, ReleasesGoLiveInOneStepAndReachNewAndUpdatingPlayers) {
  Studio studio;
  // Read back as launchers read it, a file called "size" would be taken for the size field.
  writeBytes(studio.release / "size", "x");
  expectRefused(studio, runProcess(studio.args("1.1.0")),
                {"the launcher would misread the manifest's files[4].size"});
  fs::remove(studio.release / "size");
  Release byHand;  // a plain folder, as servers were laid out before
  byHand.files = {{"data/levels/one.dat", std::string(70000, 'L')}};
  publishRelease(studio.server, byHand);
  writeBytes(studio.release / "data" / "big.pak", std::string(17u << 20, 'B'));  // shows progress
  const auto published = runProcess(studio.args(
      "1.1.0", {"--notes", studio.notes.string(), "--mandatory", "--minimum-online-version",
                "1.0.5", "--protocol-version", "3", "--keep", "2"}));
  ASSERT_EQ(published.exitCode, 0) << published.err;
  const fs::path served = channelFolder(studio.server);
  EXPECT_EQ(published.out, "published 1.1.0 (stable/linux): 6 files, 17965821 bytes, in " +
                               served.string() + "\n" +
                               "1 unchanged files linked from the previous release\n");
  EXPECT_NE(published.err.find("hashing: 6/6 files, 17.1 of 17.1 MiB (100%)\n"), std::string::npos)
      << published.err;
  EXPECT_EQ(fs::hard_link_count(served / "files" / "data" / "levels" / "one.dat"), 2u);
  NginxServer nginx(studio.server);
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  // A new player's first install: the game package, unpacked and started under Xvfb.
  const ProcessResult packed = runProcess(
      {TH_CPACK, "--config", TH_BINARY_DIR "/CPackConfig.cmake", "-D", "CPACK_TH_VARIANT=devkey",
       "-D", "CPACK_TH_UPDATE_SERVER_URL=" + nginx.url(), "-B", studio.scratch / "package"});
  ASSERT_EQ(packed.exitCode, 0) << packed.out << packed.err;
  const fs::path archive = studio.scratch / "package" / "tarn-hollow-linux-x86_64.tar.gz";
  ASSERT_EQ(runProcess({"/usr/bin/tar", "-xzf", archive, "-C", studio.scratch.path()}).exitCode, 0);
  const fs::path game = studio.scratch / "tarn-hollow-linux-x86_64";
  EXPECT_TRUE(fs::is_regular_file(game / "tarn-hollow-update-helper") &&
              fs::is_regular_file(game / "tarn-hollow.desktop"));
  update::Updater updater(game);
  updater.server = nginx.url();
  update::UpdatePlan plan;
  std::string error;
  ASSERT_TRUE(updater.check("stable", plan, error)) << error;
  EXPECT_EQ(plan.manifest.releaseNotes, kNotes);
  EXPECT_TRUE(plan.manifest.mandatory);
  EXPECT_EQ(plan.manifest.minimumOnlineVersion, "1.0.5");
  EXPECT_EQ(plan.manifest.protocolVersion, 3);
  ASSERT_EQ(plan.files.size(), 6u);
  XvfbDisplay display;
  ProcessOptions options;
  options.env["XDG_DATA_HOME"] = (studio.scratch / "xdg").string();
  ChildProcess launcher({(game / "tarn-hollow-launcher").string()}, display.optionsFor(options));
  EXPECT_TRUE(waitUntil(
      [&] {
        const auto window = display.waitForWindow("Tarn Hollow Launcher", 2s, launcher.pid());
        const auto shot = window ? display.screenshot(*window) : std::nullopt;
        return shot && showsText(*shot, 720, 118, "READY TO PLAY", 1.02f, kStatusNormal);
      },
      90s))
      << launcher.err();
  for (const char* path : {"data/big.pak", "data/empty.flag", "data/levels/one.dat",
                           "data/linked.dat", kOddName, "tarn-hollow"}) {
    EXPECT_TRUE(fs::is_regular_file(game / path) &&
                readBytes(game / path) == readBytes(studio.release / path))
        << path;
  }
  EXPECT_EQ(fileMode(game / "tarn-hollow"), 0755u);
  EXPECT_EQ(readBytes(game / "data" / "game_version"), "1.1.0\n");

  writeBytes(studio.release / "tarn-hollow", "#!/bin/sh\necho game 1.2.0\n");
  fs::permissions(studio.release / "tarn-hollow", fs::perms(0644));
  ASSERT_EQ(runProcess(studio.args("1.2.0", {"--keep", "2"})).exitCode, 0);
  ASSERT_TRUE(updater.check("stable", plan, error)) << error;
  ASSERT_EQ(plan.files.size(), 1u);
  EXPECT_EQ(plan.files[0].path, "tarn-hollow");
  EXPECT_FALSE(plan.files[0].executable);
  ASSERT_TRUE(updater.apply(plan, {}, error, nullptr)) << error;
  EXPECT_EQ(readBytes(game / "data" / "game_version"), "1.2.0\n");
  const fs::path releases = studio.server / "stable" / ".releases" / "linux";
  EXPECT_EQ(std::distance(fs::directory_iterator(releases), fs::directory_iterator()), 2);

  // Copying the changed file fails half-way (the file size limit stands in for a full disk).
  writeBytes(studio.release / "data" / "big.pak", std::string(17u << 20, 'C'));
  const FolderSnapshot before = snapshotFolder(studio.server);
  std::vector<std::string> argv = studio.args("1.3.0");
  argv.insert(argv.begin(), {"/bin/sh", "-c", "ulimit -f 256; trap '' XFSZ; exec \"$@\"", "sh"});
  const ProcessResult failed = runProcess(argv);
  EXPECT_NE(failed.err.find("\n  data/big.pak: cannot be copied: "), std::string::npos)
      << failed.err;
  EXPECT_EQ(snapshotDiff(before, snapshotFolder(studio.server)), "");

  // verify passes what is served, then names each bad file, a foreign signature and no server.
  expectVerify(nginx.url(), {});
  std::string manifest = readBytes(served / "manifest.json");
  manifest.replace(manifest.find("\"size\": 0,"), 10, "\"size\": 2,");  // data/empty.flag's
  publishRawManifest(studio.server, manifest, signHex(manifest));
  writeBytes(served / "files" / "data" / "levels" / "one.dat", std::string(70000, 'M'));
  fs::remove(served / "files" / "tarn-hollow");
  expectVerify(nginx.url(), {"data/empty.flag: 0 bytes, the manifest says 2",
                             "data/levels/one.dat: SHA-256 " + sha256Hex(std::string(70000, 'M')) +
                                 ", the manifest says " + sha256Hex(std::string(70000, 'L')),
                             "tarn-hollow: cannot be downloaded: HTTP response code said error"});
  publishRawManifest(studio.server, manifest, signHex(manifest, TH_DEV_RSA_PRIVATE_KEY));
  expectVerify(nginx.url(), {"the manifest is refused: manifest_signature_verify_failed"});
  expectVerify("http://127.0.0.1:1",  // nothing listens on port 1
               {"the manifest cannot be fetched: Couldn't connect to server"});
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
      runProcess(s.args("1..2",
                        {"--notes", s.notes.string(), "--minimum-online-version", "1.2147483648",
                         "--protocol-version", "-1", "--channel", "a/b", "--platform", ".."},
                        TH_DEV_PUBLIC_KEY));

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

  // A fresh pair from keygen is refused by this build, which pins the development key; the
  // fingerprint in the refusal comes from the private key, so it also shows the files are a pair.
  fs::remove_all(s.release);
  s.server = s.scratch / "server";
  const fs::path keys = s.scratch / "keys", privateKey = keys / "update-private-key.pem";
  const auto made = runProcess({TH_PUBLISH_DEVKEY, "keygen", "--out", keys});
  const std::string fingerprint = sha256Hex(readBytes(keys / "update-public-key.pem"));
  EXPECT_NE(made.out.find("fingerprint: " + fingerprint + "\n"), std::string::npos) << made.err;
  EXPECT_EQ(fileMode(privateKey), 0600u);
  expectRefused(s, runProcess(s.args("1.1.0", {}, privateKey.string())),
                {privateKey.string() + ": its public key has fingerprint " + fingerprint +
                     ", but this build pins " + sha256Hex(readBytes(TH_DEV_PUBLIC_KEY)) +
                     " (build with -DTH_UPDATE_KEY_FINGERPRINT=" + fingerprint + ")",
                 s.release.string() + ": not a readable folder"});
  EXPECT_EQ(runProcess({TH_PUBLISH_DEVKEY, "keygen", "--out", keys}).exitCode, 1);
  EXPECT_EQ(sha256Hex(readBytes(keys / "update-public-key.pem")), fingerprint);  // not overwritten

  fs::create_directories(s.release / "empty");
  const std::string ed25519 = (s.scratch / "ed.pem").string();
  runProcess({"/usr/bin/openssl", "genpkey", "-algorithm", "ed25519", "-out", ed25519});
  expectRefused(s, runProcess(s.args("1.1.0", {}, ed25519)),
                {ed25519 + ": this key cannot make SHA-256 signatures (use EC or RSA)",
                 s.release.string() + ": holds no files"});
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
    std::vector<std::string> argv{TH_PUBLISH_DEVKEY};
    argv.insert(argv.end(), row.args.begin(), row.args.end());
    const auto result = runProcess(argv);
    const bool misuse = row.exitCode == 2;
    const std::string want = misuse ? "tarn-hollow-publish: " + row.start + "\nusage: " : row.start;
    EXPECT_EQ(result.exitCode, row.exitCode) << row.start;
    EXPECT_EQ((misuse ? result.err : result.out).substr(0, want.size()), want);
  }
}

TEST(ReleaseDay, TwentyPlayersUpdateWhileTheNextReleaseGoesLive) {
  Studio studio;
  const char* const kFiles[] = {"tarn-hollow", "data/world.pak", "data/level.pak"};
  // A game file naming the release, a large file both releases share, and a level of its own.
  const auto releaseArgs = [&](const std::string& version) {
    studio.release = studio.scratch / version;
    writeBytes(studio.release / kFiles[0], "#!/bin/sh\necho " + version + "\n");
    writeBytes(studio.release / kFiles[1], std::string(3 << 20, 'w'));
    writeBytes(studio.release / kFiles[2], std::string(1 << 20, version[2]));
    return studio.args(version);
  };
  ASSERT_EQ(runProcess(releaseArgs("1.0.0")).exitCode, 0);
  NginxServer nginx(studio.server, "limit_rate 8m;");
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  // What is served at each step of a publish is the power-cut test's; here, what players do.
  const auto install = [&](int i) { return studio.scratch / ("player" + std::to_string(i)); };
  const auto player = [&](int i) {
    return std::vector<std::string>{TH_UPDATE_CLIENT, install(i).string(), nginx.url()};
  };
  std::vector<std::unique_ptr<ChildProcess>> players;
  std::unique_ptr<ChildProcess> publisher;
  for (int i = 0; i < 20; ++i) {
    prepareInstall(install(i), nginx.url());
    players.push_back(std::make_unique<ChildProcess>(player(i)));
    if (i == 10) publisher = std::make_unique<ChildProcess>(releaseArgs("1.1.0"));
    std::this_thread::sleep_for(100ms);  // players arrive over two seconds, the release among them
  }
  EXPECT_EQ(publisher->wait(120s), 0) << publisher->err();

  std::map<std::string, int> outcomes;
  for (int i = 0; i < 20; ++i) {
    players[i]->wait(120s);
    const std::string said = players[i]->out().substr(0, players[i]->out().find('\n'));
    ++outcomes[said.substr(0, said.find(':'))];
    const bool failed = said != "1.0.0" && said != "1.1.0";
    if (failed) {  // untouched, and current after the next run
      EXPECT_TRUE(said == "manifest_signature_verify_failed" ||
                  said.rfind("download_hash_mismatch:", 0) == 0);
      EXPECT_EQ(installSnapshot(install(i)).size(), 3u);  // data/ and its two files, as prepared
      EXPECT_EQ(runProcess(player(i)).out, "1.1.0\n");
    }
    for (const char* file : kFiles) {
      EXPECT_TRUE(readBytes(install(i) / file) ==
                  readBytes(studio.scratch / (failed ? "1.1.0" : said) / file))
          << said << ' ' << file;
    }
  }
  std::cout << "release day, 20 players:";
  for (const auto& [outcome, count] : outcomes) std::cout << ' ' << outcome << " x" << count;
  std::cout << " (each failed one converged on 1.1.0 at its next run)\n";
}

}  // namespace
}  // namespace th::test
