// The studio's tools as a studio runs them, checked by the real launcher and engine through nginx.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>

#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "tests/support/update_server.h"
#include "tests/support/xvfb.h"
#include "update/file_descriptor.h"
#include "update/http.h"
#include "update/manifest.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Args = std::vector<std::string>;
using testing::IsSubstring;

const std::string kNotes =
    "Faster loading.\nFixed a \"ghost\" crash in C:\\Games\\Tarn.\r\n\tCaf\xc3\xa9 {braces} [and] "
    "\"files\": [ ] stay text.";

// Every punctuation mark a release name may hold; each must survive URL, server and parser.
const char* const kOddName = "data/odd-name_(v2)+final;@'!$&*,=~.txt";
const std::string kRefused = "tarn-hollow-publish: refused, nothing was published:\n";
const std::string kNoKey = "tarn-hollow-publish: refused, no key was made:\n";
// What release and verify say of Studio::next's 3 MiB world.pak on a link of 0.2 Mbit/s.
const std::string kTooSlow =
    "data/world.pak: 3.0 MiB needs 126 s at 0.2 Mbit/s, more than the 120 s a file may take (a "
    "launcher gives up on a request after 180 s, then starts the file over); it arrives in time "
    "from 0.3 Mbit/s up. Split it into parts of at most 2.8 MiB, or give --slowest-link 0.3 "
    "knowingly: players on slower links could never install it";

// `text` holds `heading`, then a line per problem naming what is given (not the whole sentence).
void expectReport(const std::string& text, const std::string& heading, const Args& problems) {
  std::string expected = heading, got;
  for (const std::string& problem : problems) expected += "  " + problem + "\n";
  std::istringstream lines(text.substr(std::min(text.find(heading), text.size())));
  size_t i = 0;
  for (std::string line; std::getline(lines, line); ++i) {
    const bool names = i > 0 && i <= problems.size() && line.find(problems[i - 1]) != line.npos;
    got += (names ? "  " + problems[i - 1] : line) + "\n";
  }
  EXPECT_EQ(got, expected);
}

Args operator+(Args first, const Args& then) {
  first.insert(first.end(), then.begin(), then.end());
  return first;
}

// The tool's command line, run by `wrapper` (such as setsid -w) when one is given.
Args publishArgs(const Args& args, const Args& wrapper = {}) {
  return wrapper + Args{TH_PUBLISH_DEVKEY} + args;
}

ProcessResult publish(const Args& args, const Args& wrapper = {}) {
  return runProcess(publishArgs(args, wrapper));
}

struct Studio {
  TempDir scratch;
  fs::path release = scratch / "release", server = scratch / "server", notes = scratch / "notes";

  Studio() {
    writeBytes(release / "tarn-hollow", "#!/bin/sh\necho game 1.1.0\n");
    fs::permissions(release / "tarn-hollow", fs::perms(0755));
    writeBytes(release / "data" / "levels" / "one.dat", std::string(70000, 'L'));
    writeBytes(release / "data" / "empty.flag", "");
    fs::create_symlink("levels/one.dat", release / "data" / "linked.dat");
    writeBytes(release / kOddName, "odd");
    writeBytes(notes, kNotes);
  }

  Args args(const std::string& version, const Args& extra = {},
            const std::string& key = TH_DEV_PRIVATE_KEY, const Args& wrapper = {}) const {
    const Args given({"release", "--from", release, "--version", version, "--server-root", server});
    return publishArgs(given + (key.empty() ? Args{} : Args{"--key", key}) + extra, wrapper);
  }

  // A release for `version`: its game file, a large shared file, a same-size level of its own.
  Args next(const std::string& version, const Args& extra = {}) {
    release = scratch / version;
    writeBytes(release / "tarn-hollow", "#!/bin/sh\necho " + version + "\n");
    writeBytes(release / "data" / "world.pak", std::string(3 << 20, 'w'));
    writeBytes(release / "data" / "level.pak", std::string(1 << 20, version[2]));
    return args(version, extra);
  }

  // The release made in three steps, as one command: prepare, sign, publish.
  Args stepwise(const std::string& version) {
    next(version);
    return {"/bin/sh",
            "-c",
            "\"$0\" prepare --from \"$1\" --version \"$2\" --out \"$3\" && \"$0\" sign --prepared "
            "\"$3\" --key \"$4\" && \"$0\" publish --prepared \"$3\" --server-root \"$5\"",
            TH_PUBLISH_DEVKEY,
            release,
            version,
            scratch / ("prepared-" + version),
            TH_DEV_PRIVATE_KEY,
            server};
  }

  // The tool names every problem at once, and a refused release leaves no trace on the server.
  void expectRefused(const Args& argv, const Args& problems) const {
    const ProcessResult result = runProcess(argv);
    EXPECT_EQ(result.exitCode, 1);
    expectReport(result.err, kRefused, problems);
    EXPECT_FALSE(fs::exists(server));
  }
};

// verify, through the engine, leaving no scratch folder; returns its standard error.
std::string expectVerify(const std::string& url, const Args& problems, const Args& extra = {}) {
  const TempDir tmp;
  const ProcessResult result =
      runProcess(publishArgs(Args{"verify", "--url", url} + extra), {{{"TMPDIR", tmp.path()}}, {}});
  EXPECT_TRUE(fs::is_empty(tmp.path()));
  EXPECT_EQ(result.exitCode, problems.empty() ? 0 : 1) << result.err;
  const std::string heading = "tarn-hollow-publish: " + url + "/stable/linux does not serve a";
  if (!problems.empty()) expectReport(result.err, heading + " good release:\n", problems);
  return result.err;
}

// A plain folder taken over, unchanged files linked, a package install, updates, a failed release
// changing nothing, verify.
TEST(Publish, ReleasesGoLiveInOneStepAndReachNewAndUpdatingPlayers) {
  Studio s;
  // Read back as launchers read it, a file called "size" would be taken for the size field.
  writeBytes(s.release / "size", "x");
  s.expectRefused(s.args("1.1.0"), {"the launcher would misread the manifest's files[4].size"});
  fs::remove(s.release / "size");
  Release byHand;  // a plain folder, as servers were laid out before
  byHand.files = {{"data/levels/one.dat", std::string(70000, 'L')}};
  publishRelease(s.server, byHand);
  writeBytes(s.release / "data" / "big.pak", std::string(17u << 20, 'B'));  // shows progress
  const auto published =
      runProcess(s.args("1.1.0", {"--notes", s.notes, "--mandatory", "--minimum-online-version",
                                  "1.0.5", "--protocol-version", "3"}));
  ASSERT_EQ(published.exitCode, 0) << published.err;
  const fs::path served = channelFolder(s.server);
  EXPECT_PRED_FORMAT2(IsSubstring, "1.1.0 (stable/linux): 6 files, 17965821 bytes", published.out);
  EXPECT_PRED_FORMAT2(IsSubstring, "hashing: 6/6 files, 17.1 of 17.1 MiB (100%)\n", published.err);
  EXPECT_EQ(fs::hard_link_count(served / "files" / "data" / "levels" / "one.dat"), 2u);
  NginxServer nginx(s.server);
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  // A new player's install from the development-key package, made only by builds with tests.
  const Args pack({TH_CPACK, "--config", TH_BINARY_DIR "/CPackConfig.cmake", "-B", s.scratch.path(),
                   "-D", "CPACK_TH_VARIANT=devkey", "-D",
                   "CPACK_TH_UPDATE_SERVER_URL=" + nginx.url()});
  EXPECT_PRED_FORMAT2(IsSubstring, "the development-key package is for tests only",
                      runProcess(pack + Args{"-D", "CPACK_TH_TEST_BUILD=OFF"}).err);
  const ProcessResult packed = runProcess(pack);
  ASSERT_EQ(packed.exitCode, 0) << packed.out << packed.err;
  const fs::path game = s.scratch / "tarn-hollow-DEVELOPMENT-KEY-linux-x86_64";
  const Args unpack{"/usr/bin/tar", "-xzf", game.string() + ".tar.gz", "-C", s.scratch.path()};
  ASSERT_EQ(runProcess(unpack).exitCode, 0);
  EXPECT_TRUE(fs::is_regular_file(game / "tarn-hollow-update-helper") &&
              fs::is_regular_file(game / "tarn-hollow.desktop") &&
              fs::is_regular_file(game / "PLAYERS.md"));
  // The package holds the launcher the build made, so that a release can carry the same bytes.
  const std::string built = readBytes(TH_BINARY_DIR "/devkey/tarn-hollow-launcher");
  EXPECT_EQ(sha256Hex(readBytes(game / "tarn-hollow-launcher")), sha256Hex(built));
  // The fields as launchers read them.
  update::Manifest got;
  std::string error;
  ASSERT_TRUE(update::parseManifest(readBytes(served / "manifest.json"), got, error)) << error;
  EXPECT_EQ(
      std::tie(got.releaseNotes, got.mandatory, got.minimumOnlineVersion, got.protocolVersion),
      std::make_tuple(kNotes, true, "1.0.5", 3));
  XvfbDisplay display;
  ChildProcess launcher({game / "tarn-hollow-launcher"},
                        display.optionsFor({{{"XDG_DATA_HOME", s.scratch / "xdg"}}, {}}));
  const auto updated = [&] { return readBytes(game / "data" / "game_version") == "1.1.0\n"; };
  EXPECT_TRUE(waitUntil(updated, 90s)) << launcher.err();
  for (const char* path : {"data/big.pak", "data/empty.flag", "data/levels/one.dat",
                           "data/linked.dat", kOddName, "tarn-hollow"}) {
    EXPECT_TRUE(fs::is_regular_file(game / path) &&
                readBytes(game / path) == readBytes(s.release / path))
        << path;
  }
  EXPECT_EQ(fileMode(game / "tarn-hollow"), 0755u);

  writeBytes(s.release / "tarn-hollow", "#!/bin/sh\necho game 1.2.0\n");
  fs::permissions(s.release / "tarn-hollow", fs::perms(0644));
  // With the build's launcher the package's install updates no launcher, and nothing is said.
  writeBytes(s.release / "tarn-hollow-launcher", built);
  const Args package{"--package", game.string() + ".tar.gz"};
  const ProcessResult same = runProcess(s.args("1.2.0", package));
  ASSERT_EQ(same.exitCode, 0) << same.err;
  EXPECT_EQ(same.err.find("tarn-hollow-launcher"), std::string::npos) << same.err;
  EXPECT_EQ(runProcess({TH_UPDATE_CLIENT, game, nginx.url()}).out, "1.2.0\n");
  EXPECT_EQ(fileMode(game / "tarn-hollow"), 0644u);

  // Copying the changed file fails half-way (the file size limit stands in for a full disk).
  writeBytes(s.release / "data" / "big.pak", std::string(17u << 20, 'C'));
  const FolderSnapshot before = snapshotFolder(s.server);
  const Args fileLimit{"/bin/sh", "-c", "ulimit -f 256; trap '' XFSZ; exec \"$@\"", "sh"};
  EXPECT_PRED_FORMAT2(IsSubstring, "\n  data/big.pak: cannot be copied: ",
                      runProcess(s.args("1.3.0", {}, TH_DEV_PRIVATE_KEY, fileLimit)).err);
  EXPECT_EQ(snapshotDiff(before, snapshotFolder(s.server)), "");

  // verify passes what is served, then names each bad file and a foreign signature.
  expectVerify(nginx.url(), {});
  std::string bad = readBytes(served / "manifest.json");
  bad.replace(bad.find("\"size\": 0,"), 10, "\"size\": 2,");  // data/empty.flag's
  bad.replace(bad.find("online_version\": \"\""), 18, "online_version\": \"9.0.0\"");
  publishRawManifest(s.server, bad, signHex(bad));
  writeBytes(served / "files" / "data" / "levels" / "one.dat", std::string(70000, 'M'));
  fs::remove(served / "files" / "tarn-hollow");
  EXPECT_PRED_FORMAT2(
      IsSubstring,
      "warning: manifest.json: the minimum online version 9.0.0 is above the release's own "
      "version 1.2.0: players stay below it",
      expectVerify(
          nginx.url(),
          {"data/empty.flag: 0 bytes, the manifest says 2",
           "data/levels/one.dat: SHA-256 " + sha256Hex(std::string(70000, 'M')),
           "tarn-hollow: cannot be downloaded: HTTP response code said error (HTTP 404)"}));
  publishRawManifest(s.server, bad, signHex(bad, TH_DEV_RSA_PRIVATE_KEY));
  expectVerify(nginx.url(), {"the manifest is refused: manifest_signature_verify_failed"});
  // The damaged data/levels/one.dat, listed unchanged by the served manifest, is copied afresh. A
  // launcher other than the package's is named.
  writeBytes(s.release / "tarn-hollow-launcher", built + "\n");
  const ProcessResult other = runProcess(s.args("1.4.0", package));
  ASSERT_EQ(other.exitCode, 0) << other.err;
  EXPECT_PRED_FORMAT2(IsSubstring,
                      "warning: tarn-hollow-launcher: the release's has SHA-256 " +
                          sha256Hex(built + "\n") + ", the one in the package " + package[1] + " " +
                          sha256Hex(built) +
                          ": every new player's launcher would update itself and restart on its "
                          "first start (publish the launcher of the build that made the package)\n",
                      other.err);
  expectVerify(nginx.url(), {});
}

TEST(Publish, RefusesBadNamesLinksFilesValuesAndKeysAllAtOnce) {
  Studio s;
  // Which names the launcher refuses is the engine's own table; one of them stands for all here.
  for (const char* name : {"data/update_public_key.pem", "caf\xc3\xa9.txt", "data/game_version",
                           "bin/tarn-hollow-launcher", "tarn-hollow-update-helper/readme",
                           ".tarnhollow-update", "100%.txt", "data/update_server.txt", "save",
                           "esc\x1b[2J\x9b"
                           "ape"})
    writeBytes(s.release / name, "x");
  fs::create_symlink("../../notes", s.release / "data" / "up");
  fs::create_symlink("levels", s.release / "data" / "folder");
  fs::create_symlink("missing", s.release / "broken");
  mkfifo((s.release / "pipe").c_str(), 0644);
  writeBytes(s.notes, "beep\x07");
  s.server = s.release / "srv";
  // The refusal names the options' problems first, then the release's entries by path.
  const std::string plain = " must be letters, digits, '.', '_' or '-', not starting with '.'";
  Args problems{
      "release notes hold a control character other than tab or line end, which the "
      "launcher cannot read",
      "--version '1..2' is not a dotted number like 1.4.2",
      "--minimum-online-version '1.2147483648' is not a dotted number like 1.4.0",
      "--protocol-version '-1' is not a whole number from 0 to 2147483647",
      "--channel 'a/b'" + plain,
      "--platform '..'" + plain,
      "the server root lies inside the release",
      "not a PEM private key"};
  const Args entries{
      ".tarnhollow-update: would displace the updater's", "100%.txt: characters the launcher",
      "bin/tarn-hollow-launcher: the launcher takes any", "broken: cannot be read (broken",
      "caf\xc3\xa9.txt: characters the launcher",         "data/folder: symbolic link to a folder",
      "data/game_version: the launcher's version marker", "data/up: symbolic link leaving",
      "data/update_public_key.pem: the launcher refuses", "data/update_server.txt: each player's",
      "esc\\x1b[2J\\x9bape: characters the launcher",     "pipe: not a regular file",
      "save: would displace the folder of the player's",  "tarn-hollow-update-helper/readme: lies"};
  problems.push_back(
      "notes: tar finds no tarn-hollow-launcher in the top folder of this game package (a "
      ".tar.gz)");
  problems.insert(problems.end(), entries.begin(), entries.end());
  s.expectRefused(
      s.args("1..2",
             {"--notes", s.notes, "--minimum-online-version", "1.2147483648", "--protocol-version",
              "-1", "--channel", "a/b", "--platform", "..", "--package", s.notes},
             TH_DEV_PUBLIC_KEY),
      problems);

  // A file the tool may not read (root without its override) is named; nothing is published.
  Studio unreadable;
  fs::permissions(unreadable.release / "data" / "empty.flag", fs::perms::none);
  const Args noOverride{"/usr/bin/setpriv", "--bounding-set=-dac_override,-dac_read_search",
                        "--inh-caps=-dac_override,-dac_read_search"};
  unreadable.expectRefused(unreadable.args("1.1.0", {}, TH_DEV_PRIVATE_KEY, noOverride),
                           {"data/empty.flag: cannot be read: Permission denied"});

  // keygen encrypts the private key under a passphrase, and asks for one on the terminal unless
  // told where it is. A fresh pair is refused by this build, which pins the development key; the
  // fingerprint in the refusal comes from the decrypted private key: the files are a pair.
  fs::remove_all(s.release);
  s.server = s.scratch / "server";
  const fs::path keys = s.scratch / "keys", key = keys / "update-private-key.pem";
  const Args noTerminal{"/usr/bin/setsid", "-w"};
  expectReport(publish({"keygen", "--out", keys}, noTerminal).err, kNoKey,
               {"no terminal to ask for the passphrase: give --passphrase-file FILE or"});
  setenv("TH_TEST_PASSPHRASE", std::string(1025, 'p').c_str(), 1);
  expectReport(publish({"keygen", "--out", keys, "--passphrase-env", "TH_TEST_PASSPHRASE"}).err,
               kNoKey, {"the passphrase is longer than 1024 bytes"});
  // Ctrl-C at the prompt gives the terminal its echo back.
  int terminal = -1;
  const pid_t asking = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (asking == 0) execl(TH_PUBLISH_DEVKEY, "publish", "keygen", "--out", keys.c_str(), nullptr);
  termios settings{};
  waitUntil([&] { return tcgetattr(terminal, &settings) == 0 && !(settings.c_lflag & ECHO); }, 10s);
  int status = 0;
  ASSERT_EQ(write(terminal, "\x03", 1), 1);
  ASSERT_EQ(waitpid(asking, &status, 0), asking);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT &&
              tcgetattr(terminal, &settings) == 0 && (settings.c_lflag & ECHO));
  close(terminal);
  // A key file is written whole or not at all (the file size limit stands in for a full disk).
  const fs::path passphrase = s.scratch / "passphrase";
  const std::string longest(1024, 'h');  // the longest passphrase allowed
  writeBytes(passphrase, longest + "\n");
  const Args keygen{"keygen", "--out", keys, "--passphrase-file", passphrase};
  const Args noRoom{"/bin/sh", "-c",
                    "ulimit -S -f 0; trap '' XFSZ; \"$@\" 2>&1 | (ulimit -S -f unlimited; cat)",
                    "sh"};
  expectReport(publish(keygen, noRoom).out, kNoKey, {"update-private-key.pem: cannot be written"});
  EXPECT_TRUE(fs::is_empty(keys));
  const auto made = publish(keygen);
  const std::string fingerprint = sha256Hex(readBytes(keys / "update-public-key.pem"));
  EXPECT_PRED_FORMAT2(IsSubstring, "fingerprint: " + fingerprint + "\n", made.out);
  EXPECT_EQ(fileMode(key), 0600u);
  const std::string encryption = runProcess({"/usr/bin/openssl", "asn1parse", "-in", key}).out;
  EXPECT_PRED_FORMAT2(IsSubstring, ":PBKDF2", encryption);
  EXPECT_PRED_FORMAT2(IsSubstring, "INTEGER           :0927C0\n", encryption);  // 600,000
  EXPECT_PRED_FORMAT2(IsSubstring, ":hmacWithSHA256", encryption);
  // One line end after the passphrase is no part of it, from a file or a variable alike.
  setenv("TH_TEST_PASSPHRASE", (longest + "\n").c_str(), 1);
  const std::string noRelease = "not a readable folder";  // the release folder is gone
  s.expectRefused(s.args("1.1.0", {"--passphrase-env", "TH_TEST_PASSPHRASE"}, key),
                  {"its public key has fingerprint " + fingerprint, noRelease});
  s.expectRefused(
      s.args("1.1.0", {"--passphrase-file", s.scratch / "none", "--notes", s.scratch / "none"},
             key),
      {"none: release notes file cannot be read: No such file or directory",
       "encrypted, and " + (s.scratch / "none").string() + ": cannot be read: No such file",
       noRelease});
  writeBytes(s.scratch / "wrong", "correct horse battery\n");
  s.expectRefused(s.args("1.1.0", {"--passphrase-file", s.scratch / "wrong"}, key),
                  {"the passphrase does not decrypt this key", noRelease});
  s.expectRefused(s.args("1.1.0", {}, key, noTerminal),
                  {"encrypted, and no terminal to ask", noRelease});
  EXPECT_EQ(publish({"keygen", "--out", keys, "--unencrypted"}).exitCode, 1);
  EXPECT_EQ(sha256Hex(readBytes(keys / "update-public-key.pem")), fingerprint);  // not overwritten
  // A key in the clear open to others is refused, a missing one named.
  fs::copy_file(TH_DEV_PRIVATE_KEY, s.scratch / "open.pem");
  fs::permissions(s.scratch / "open.pem", fs::perms(0640));
  s.expectRefused(s.args("1.1.0", {}, s.scratch / "open.pem"),
                  {"a key in the clear that group or others may open (mode 0640)", noRelease});
  s.expectRefused(s.args("1.1.0", {}, s.scratch / "none"),
                  {"none: cannot be read: No such file", noRelease});

  fs::create_directories(s.release / "empty");
  const std::string ed25519 = s.scratch / "ed.pem";
  runProcess({"/usr/bin/openssl", "genpkey", "-algorithm", "ed25519", "-out", ed25519});
  s.expectRefused(s.args("1.1.0", {}, ed25519),
                  {"this key cannot make SHA-256 signatures", "holds no files"});
}

// Keys in a SoftHSM token made for the test: keygen makes them in the token and prints the
// fingerprint; the development keys imported into it sign through the token, and a player installs
// the release; what the token cannot give is refused by name.
TEST(Token, KeysInATokenSignReleasesThatPlayersInstall) {
  Studio s;
  const fs::path conf = s.scratch / "softhsm2.conf", pin = s.scratch / "pin";
  fs::create_directories(s.scratch / "tokens");
  writeBytes(conf, "directories.tokendir = " + (s.scratch / "tokens").string() + "\n");
  writeBytes(pin, "1234\n");
  writeBytes(s.scratch / "wrong", "4321\n");
  setenv("SOFTHSM2_CONF", conf.c_str(), 1);
  setenv("TH_TEST_PIN", "1234", 1);
  const std::string util = "/usr/bin/softhsm2-util";
  ASSERT_EQ(runProcess(words(util + " --init-token --free --label studio --so-pin 5678 --pin 1234"))
                .exitCode,
            0);
  for (const auto& [key, label, id] : {std::tuple{TH_DEV_PRIVATE_KEY, "dev", "01"},
                                       std::tuple{TH_DEV_RSA_PRIVATE_KEY, "dev-rsa", "02"}})
    ASSERT_EQ(runProcess({util, "--import", key, "--token", "studio", "--label", label, "--id", id,
                          "--pin", "1234"})
                  .exitCode,
              0);
  const Args pinFile{"--pin-file", pin};
  const auto token = [](const std::string& label, const Args& pinFrom,
                        const std::string& name = "studio",
                        const std::string& module = TH_SOFTHSM2) {
    return Args{"--pkcs11-module", module, "--token", name, "--key-label", label} + pinFrom;
  };
  // Made in the token, EC or RSA; only the public key comes out, and a label is never reused.
  std::map<std::string, std::string> made;
  for (const std::string type : {"ec", "rsa"}) {
    const Args keygen = Args{"keygen", "--out", s.scratch / type} + token(type, pinFile) +
                        (type == "rsa" ? Args{"--rsa"} : Args{});
    const ProcessResult result = publish(keygen);
    made[type] = sha256Hex(readBytes(s.scratch / type / "update-public-key.pem"));
    EXPECT_EQ(result.out,
              "private key: in token 'studio', labelled '" + type +
                  "' (it never leaves the token)\npublic key:  " +
                  (s.scratch / type / "update-public-key.pem").string() +
                  " (ship it as data/update_public_key.pem)\nfingerprint: " + made[type] +
                  "\nbuild with:  -DTH_UPDATE_KEY_FINGERPRINT=" + made[type] + "\n")
        << result.err;
    // Sensitive and never extractable, as the token itself says.
    const Args list{"/usr/bin/p11tool", "--provider", TH_SOFTHSM2, "--login", "--list-privkeys"};
    EXPECT_PRED_FORMAT2(IsSubstring, "CKA_PRIVATE; CKA_NEVER_EXTRACTABLE; CKA_SENSITIVE; \n",
                        runProcess(list + Args{"pkcs11:token=studio;object=" + type},
                                   {{{"GNUTLS_PIN", "1234"}}, {}})
                            .out);
    expectReport(publish(Args{"keygen", "--out", s.scratch / "again"} + token(type, pinFile)).err,
                 kNoKey,
                 {"token 'studio' already holds a key labelled '" + type + "'; a key is never"});
  }
  const std::string pins = " its public key has fingerprint ";
  const struct {
    Args key, wrapper;
    std::string problem;
  } refusals[] = {
      {token("ec", pinFile), {}, "token 'studio' key 'ec':" + pins + made["ec"]},
      {token("rsa", pinFile), {}, "token 'studio' key 'rsa':" + pins + made["rsa"]},
      {token("dev-rsa", pinFile),
       {},
       pins + sha256Hex(readBytes(TH_SOURCE_DIR "/tests/keys/dev-only-rsa-update-public-key.pem"))},
      {token("none", pinFile), {}, "token 'studio' holds no key labelled 'none'"},
      {token("dev", {"--pin-file", s.scratch / "wrong"}),
       {},
       "the PIN is not accepted by token 'studio'"},
      {token("dev", {}),
       {"/usr/bin/setsid", "-w"},
       "no terminal to ask for the PIN: give --pin-file FILE or --pin-env NAME"},
      {token("dev", pinFile, "gone"),
       {},
       "no token labelled 'gone' in " TH_SOFTHSM2 " (it has 'studio')"},
      {token("dev", pinFile, "studio", "/none.so"),
       {},
       "/none.so: the PKCS#11 module cannot be loaded: "},
  };
  for (const auto& row : refusals)
    s.expectRefused(s.args("1.1.0", row.key, "", row.wrapper), {row.problem});
  const ProcessResult published =
      runProcess(s.args("1.1.0", token("dev", {"--pin-env", "TH_TEST_PIN"}), ""));
  ASSERT_EQ(published.exitCode, 0) << published.err;
  NginxServer nginx(s.server);
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  prepareInstall(s.scratch / "player", nginx.url());
  EXPECT_EQ(runProcess({TH_UPDATE_CLIENT, s.scratch / "player", nginx.url()}).out, "1.1.0\n");
  // The same key signs a prepared release where the token is; prepare and publish need no key.
  const fs::path prepared = s.scratch / "prepared";
  writeBytes(s.release / "tarn-hollow", "#!/bin/sh\necho 1.2.0\n");
  for (const Args& step :
       {Args{"prepare", "--from", s.release, "--version", "1.2.0", "--out", prepared},
        Args{"sign", "--prepared", prepared} + token("dev", {"--pin-env", "TH_TEST_PIN"}),
        Args{"publish", "--prepared", prepared, "--server-root", s.server}})
    ASSERT_EQ(publish(step).exitCode, 0) << step[0];
  EXPECT_EQ(runProcess({TH_UPDATE_CLIENT, s.scratch / "player", nginx.url()}).out, "1.2.0\n");
}

// One publisher at a time per channel and platform: a second run waits, or gives up with
// --no-wait; two runs together both publish whole, and pruning removes what a killed run left. A
// folder of the release swapped for a link while a run waits is not followed.
TEST(Publish, ReleasesStartedTogetherPublishOneAfterTheOther) {
  Studio s;
  const fs::path releases = s.server / "stable" / ".releases" / "linux";
  fs::create_directories(releases / "000001-0.9.0" / "files");  // killed before its manifest
  // The development key, encrypted; its passphrase is never shown.
  const fs::path key = s.scratch / "key.pem", passphrase = s.scratch / "passphrase";
  writeBytes(passphrase, "correct horse\n");
  runProcess({"/usr/bin/openssl", "pkcs8", "-topk8", "-v2", "aes-256-cbc", "-in",
              TH_DEV_PRIVATE_KEY, "-out", key, "-passout", "file:" + passphrase.string()});
  // A killed run of the same process ID left its link.
  const Args sameId{"/bin/sh", "-c", "ln -s gone \"$0\"/.linux.next-$$ && exec \"$@\"",
                    (s.server / "stable").string()};
  // On a kernel without openat2.
  const ProcessResult first =
      runProcess(underStrace("inject=openat2:error=ENOSYS",
                             s.args("1.0.0", {"--passphrase-file", passphrase}, key, sameId)),
                 tracedOptions());
  ASSERT_EQ(first.exitCode, 0) << first.err;
  EXPECT_TRUE(fs::is_directory(releases / "000002-1.0.0"));  // numbered on past the killed run's
  EXPECT_EQ((first.out + first.err).find("correct horse"), std::string::npos);
  const update::FileDescriptor held(open((releases / ".lock").c_str(), O_RDWR | O_CLOEXEC));
  struct flock whole {
    F_WRLCK, SEEK_SET, 0, 0, 0
  };
  ASSERT_EQ(fcntl(held.get(), F_OFD_SETLK, &whole), 0);
  expectReport(runProcess(s.args("1.1.0", {"--no-wait"})).err, kRefused,
               {releases.string() + ": another release of stable/linux is being published"});
  // A run that made the releases folder, then lost the race for its lock, leaves it to the winner.
  const fs::path beta = s.server / "beta" / ".releases" / "linux";
  fs::create_directories(beta.parent_path());
  ChildProcess loser(underStrace("inject=mkdir,mkdirat:delay_exit=2s",
                                 s.args("1.1.0", {"--no-wait", "--channel", "beta"})),
                     tracedOptions());
  ASSERT_TRUE(waitUntil([&] { return fs::exists(beta); }, 10s));
  const update::FileDescriptor winner(open((beta / ".lock").c_str(), O_RDWR | O_CREAT, 0644));
  ASSERT_EQ(fcntl(winner.get(), F_OFD_SETLK, &whole), 0);
  EXPECT_EQ(loser.wait(60s), 1);
  EXPECT_PRED_FORMAT2(IsSubstring, "another release of beta/linux is being published", loser.err());
  EXPECT_TRUE(fs::exists(beta / ".lock"));
  std::vector<std::unique_ptr<ChildProcess>> runs;
  runs.push_back(std::make_unique<ChildProcess>(s.args("2.0.0")));
  // The same on a kernel without openat2, walking the release folder by descriptors.
  runs.push_back(std::make_unique<ChildProcess>(
      underStrace("inject=openat2:error=ENOSYS", s.args("2.0.0")), tracedOptions()));
  for (const char* version : {"1.1.0", "1.2.0"})
    runs.push_back(std::make_unique<ChildProcess>(s.next(version, {"--keep", "2"})));
  const std::string waiting = "waiting for another release of stable/linux to finish\n";
  for (const auto& run : runs)
    EXPECT_TRUE(waitUntil([&] { return run->err().find(waiting) != std::string::npos; }, 10s));
  const fs::path data = s.scratch / "release" / "data";
  writeBytes(s.scratch / "outside" / "levels" / "one.dat", std::string(70000, 'O'));
  fs::rename(data, s.scratch / "data.moved");
  fs::create_symlink(s.scratch / "outside", data);
  whole.l_type = F_UNLCK;
  fcntl(held.get(), F_OFD_SETLK, &whole);
  for (size_t i = 0; i < 2; ++i) {
    EXPECT_EQ(runs[i]->wait(60s), 1);
    EXPECT_PRED_FORMAT2(IsSubstring,
                        "data/levels/one.dat: cannot be read: a symbolic link on its way",
                        runs[i]->err());
  }
  // Whichever takes the lock first: 1.1.0 after 1.2.0 is refused as a downgrade; either way two
  // finished releases are kept.
  EXPECT_EQ(runs[3]->wait(60s), 0) << runs[3]->err();
  if (runs[2]->wait(60s) != 0) {
    EXPECT_PRED_FORMAT2(IsSubstring, "--version '1.1.0' is not above the served release 1.2.0",
                        runs[2]->err());
  }
  // Both are whole: verify passes on the one served last and, linked back in, the one before.
  NginxServer nginx(s.server);
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  expectVerify(nginx.url(), {});
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(releases)) names.insert(entry.path().filename());
  ASSERT_EQ(names.size(), 3u);  // two kept (--keep 2), the unfinished one pruned; and the lock
  EXPECT_EQ(*names.begin(), ".lock");
  fs::create_symlink(".releases/linux/" + *std::next(names.begin()),
                     s.server / "stable" / "linux.new");
  fs::rename(s.server / "stable" / "linux.new", channelFolder(s.server));
  expectVerify(nginx.url(), {});
}

// What publishes cleanly yet reaches nobody is refused or named; a bad release is rolled back by
// publishing the kept files of the one before under a higher version, signed afresh.
TEST(Publish, TrapsAreNamedAndRevertBringsEveryPlayerBack) {
  Studio s;
  s.expectRefused(s.next("0.16.99", {"--slowest-link", "0.2"}),
                  {"--version '0.16.99' is below 0.16.117, the version of an", kTooSlow});
  const Args first = s.next("1.0.1", {"--slowest-link", "0.3"});  // the link the refusal names
  fs::permissions(s.release / "tarn-hollow", fs::perms(0755));    // kept with its executable flag
  ASSERT_EQ(runProcess(first).exitCode, 0);
  NginxServer nginx(s.server);
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  const fs::path before = s.scratch / "before", bad = s.scratch / "bad";
  const Args beforeClient{TH_UPDATE_CLIENT, before, nginx.url()};
  prepareInstall(before, nginx.url());
  EXPECT_EQ(runProcess(beforeClient).out, "1.0.1\n");
  s.next("1.1.0");
  fs::permissions(s.release / "data" / "world.pak", fs::perms(0755));
  writeBytes(s.scratch / "short", kNotes.substr(0, 79));
  writeBytes(s.scratch / "game" / "top" / "tarn-hollow-launcher", "launcher");
  const fs::path package = s.scratch / "game.tar.gz";
  runProcess({"/usr/bin/tar", "-czf", package, "-C", s.scratch / "game", "top"});
  const struct {
    std::string version;
    Args extra;
    int exitCode;
    Args named, unnamed;
  } table[] = {
      {"1.1.0",
       {"--channel", "beta", "--notes", s.notes},
       0,
       {"--channel 'beta': launchers only ever ask for channel 'stable', so no player"},
       {"platform"}},
      {"1.1.0",
       {"--platform", "windows"},
       0,
       {"--platform 'windows': launchers only ever ask for platform 'linux', so no player",
        "no --notes given: launchers show release notes only from 80 bytes up"},
       {"channel"}},
      {"1.0.0",
       {},
       1,
       {"--version '1.0.0' is not above the served release 1.0.1: launchers on 1.0.1 never "
        "install a lower version (they say DOWNGRADE BLOCKED), nor tell two releases of one "
        "version apart; to bring back an earlier release's files, use revert --to"},
       {}},
      {"1.1.0",
       {"--minimum-online-version", "9.0.0"},
       1,
       {"--minimum-online-version '9.0.0': the minimum online version 9.0.0 is above the "
        "release's own version 1.1.0: players stay below it after installing the release, so "
        "PLAY stays locked"},
       {}},
      {"1.1.0",
       {"--notes", s.scratch / "short", "--minimum-online-version", "1.1.0"},
       0,
       {"the release notes are 79 bytes: launchers show release notes only from 80",
        "data/world.pak: only its executable flag changed (now on)"},
       {"channel", "locked"}},
      {"1.1.0", {}, 1, {"--version '1.1.0' is not above the served release 1.1.0"}, {}},
      {"1.1.1",
       {"--notes", s.notes, "--package", package},
       0,
       {"no file differs from the served release 1.1.0: launchers on it install nothing",
        "--package: the release holds no tarn-hollow-launcher at its top, so every launcher stays"},
       {"flag", "release notes"}},
  };
  for (const auto& row : table) {
    const ProcessResult result = runProcess(s.args(row.version, row.extra));
    EXPECT_EQ(result.exitCode, row.exitCode) << result.err;
    for (const std::string& name : row.named) EXPECT_PRED_FORMAT2(IsSubstring, name, result.err);
    for (const std::string& name : row.unnamed) EXPECT_EQ(result.err.find(name), std::string::npos);
  }
  prepareInstall(bad, nginx.url());
  EXPECT_EQ(runProcess({TH_UPDATE_CLIENT, bad, nginx.url()}).out, "1.1.1\n");

  const Args revert{"revert",           "--to",          "1.0.1", "--key",
                    TH_DEV_PRIVATE_KEY, "--server-root", s.server};
  const fs::path releases = s.server / "stable" / ".releases" / "linux";
  const update::FileDescriptor held(open((releases / ".lock").c_str(), O_RDWR | O_CLOEXEC));
  struct flock whole {
    F_WRLCK, SEEK_SET, 0, 0, 0
  };
  ASSERT_EQ(fcntl(held.get(), F_OFD_SETLK, &whole), 0);
  expectReport(publish(revert + Args{"--as", "1.1.2", "--no-wait"}).err, kRefused,
               {"another release of stable/linux is being published"});
  whole.l_type = F_UNLCK;
  fcntl(held.get(), F_OFD_SETLK, &whole);
  expectReport(publish(revert + Args{"--as", "1.1.1"}).err, kRefused,
               {"--as '1.1.1' is not above the served release 1.1.1"});
  expectReport(publish(revert + Args{"--as", "0.16.99"}).err, kRefused,
               {"--as '0.16.99' is below 0.16.117, the version of an install without a version "
                "marker: every new player's launcher would say DOWNGRADE BLOCKED and never "
                "install it (choose an --as of 0.16.117 or above)"});
  expectReport(publish(Args{"revert", "--to", "0.9.0", "--as", "1.1.2"} +
                       Args(revert.begin() + 3, revert.end()))
                   .err,
               kRefused,
               {"--to '0.9.0': no finished release of that version is kept for stable/linux "
                "(kept: 1.1.1, 1.1.0, 1.0.1)"});
  // A kept file damaged on disk is named, and nothing is published.
  fs::path level;
  for (const auto& entry : fs::directory_iterator(releases))
    if (entry.path().string().ends_with("-1.0.1")) level = entry.path() / "files/data/level.pak";
  const std::string kept = readBytes(level);
  writeBytes(level, "!" + kept.substr(1));
  expectReport(publish(revert + Args{"--as", "1.1.2"}).err, kRefused,
               {"data/level.pak: not as the manifest of the kept release 1.0.1 lists it"});
  writeBytes(level, kept);
  const ProcessResult reverted = publish(revert + Args{"--as", "1.1.2", "--notes", s.notes});
  ASSERT_EQ(reverted.exitCode, 0) << reverted.err;
  EXPECT_PRED_FORMAT2(IsSubstring, "with the files of 1.0.1, signed afresh\n", reverted.out);
  EXPECT_PRED_FORMAT2(IsSubstring, "\nolder releases removed (beyond --keep 3): 1.0.1\n",
                      reverted.out);
  // Players moved see the revert's notes, online as offline.
  update::Manifest revertManifest;
  std::string unread;
  const fs::path served = channelFolder(s.server);
  ASSERT_TRUE(update::parseManifest(readBytes(served / "manifest.json"), revertManifest, unread));
  EXPECT_EQ(revertManifest.releaseNotes,
            "Tarn Hollow v1.1.2\n\nThe files of 1.0.1, again.\n\n" + kNotes + "\n");
  EXPECT_EQ(readBytes(served / "files" / "PATCH_NOTES_v1.1.2.txt"), revertManifest.releaseNotes);
  EXPECT_PRED_FORMAT2(IsSubstring, "data/world.pak: only its executable flag changed (now off)",
                      reverted.err);
  // Both end on 1.1.1 with the kept files: the one who never left 1.0.1 installs the revert's
  // own notes file, so that its marker is rewritten too.
  for (const fs::path& player : {bad, before}) {
    EXPECT_EQ(runProcess({TH_UPDATE_CLIENT, player, nginx.url()}).out, "1.1.2\n");
    EXPECT_EQ(readBytes(player / "tarn-hollow"), readBytes(s.scratch / "1.0.1" / "tarn-hollow"));
    EXPECT_EQ(fileMode(player / "tarn-hollow"), 0755u);
  }
  EXPECT_PRED_FORMAT2(IsSubstring, "tarn-hollow-publish: warning: " + kTooSlow + "\n",
                      expectVerify(nginx.url(), {}, {"--slowest-link", "0.2"}));
}

// A file that needs longer than the launcher's 180 s per request on a player's link never
// installs; told that link, release refuses it, and its parts install. The client runs under
// Debian's libfaketime at twenty times the clock's speed, CLOCK_MONOTONIC (which libcurl times
// with) included, so that libcurl's 180 s pass in 9 real ones and the test takes half a minute,
// not four: nginx's 256 KiB/s is then a link of 0.105 Mbit/s, on which the 4 MiB file needs 16
// real seconds and each 1 MiB part 4, room enough either way on a loaded machine.
TEST(Publish, AFileTooLargeForThePlayersLinkInstallsOnceSplit) {
  Studio s;
  const fs::path data = s.release / "data", game = s.scratch / "game";
  writeBytes(data / "world.pak", std::string(4 << 20, 'w'));
  ASSERT_EQ(runProcess(s.args("1.0.0")).exitCode, 0);  // the default link fetches it in time
  NginxServer nginx(s.server, "limit_rate 256k;");
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  prepareInstall(game, nginx.url());
  const ProcessOptions fast = underFasterClock({});
  const Args client{TH_UPDATE_CLIENT, game, nginx.url()};
  EXPECT_EQ(runProcess(client, fast).out, "Timeout was reached\n");  // libcurl's, at 180 s
  const Args slowest{"--slowest-link", "0.1"};
  expectReport(runProcess(s.args("1.0.1", slowest)).err, kRefused,
               {"data/world.pak: 4.0 MiB needs 336 s at 0.1 Mbit/s, more than the 120 s"});
  fs::remove(data / "world.pak");
  for (const char* part : {"1", "2", "3", "4"})
    writeBytes(data / (std::string("world.pak.") + part), std::string(1 << 20, *part));
  ASSERT_EQ(runProcess(s.args("1.0.1", slowest)).exitCode, 0);
  EXPECT_EQ(runProcess(client, fast).out, "1.0.1\n");
}

// The key stays where it is: prepare and publish run without it, sign shows what it signs. A copy
// cut short on its way to the origin is refused at publish, not served; the guard rails run at
// every step.
TEST(Publish, PreparedAndPublishedWithoutTheKeySignedWhereItIs) {
  Studio s;
  s.next("1.0.0");
  const fs::path prepared = s.scratch / "prepared", origin = s.scratch / "origin";
  const auto prepare = [&](const std::string& version, const fs::path& out, const Args& extra) {
    return publish(Args{"prepare", "--from", s.release, "--version", version, "--out", out} +
                   extra);
  };
  const auto publishFrom = [&](const fs::path& folder) {
    return publish({"publish", "--prepared", folder, "--server-root", s.server});
  };
  const ProcessResult made = prepare("1.0.0", prepared, {"--notes", s.notes});
  ASSERT_EQ(made.exitCode, 0) << made.err;
  const std::string digest = sha256Hex(readBytes(prepared / "manifest.json"));
  EXPECT_PRED_FORMAT2(IsSubstring,
                      "manifest SHA-256: " + digest + "\nsign it with the key of fingerprint " +
                          sha256Hex(readBytes(TH_DEV_PUBLIC_KEY)) + "\n",
                      made.out);
  expectReport(publishFrom(prepared).err, kRefused, {"manifest.sig: not signed yet"});
  expectReport(prepare("1.0.0", prepared, {}).err,
               "tarn-hollow-publish: refused, nothing was prepared:\n",
               {"prepared: exists and is not an empty folder"});
  const ProcessResult signedIt =
      publish({"sign", "--prepared", prepared, "--key", TH_DEV_PRIVATE_KEY});
  EXPECT_EQ(signedIt.out,
            "signing 1.0.0 (stable/linux): 3 files, 4194325 bytes\n"
            "manifest SHA-256: " +
                digest + "\nsigned: " + (prepared / "manifest.sig").string() + "\n");
  // Carried to the origin, one file cut short on the way.
  fs::copy(prepared, origin, fs::copy_options::recursive);
  fs::resize_file(origin / "files" / "data" / "world.pak", 1000);
  expectReport(publishFrom(origin).err, kRefused,
               {"data/world.pak: not as the signed manifest lists it"});
  fs::copy_file(prepared / "files" / "data" / "world.pak", origin / "files" / "data" / "world.pak",
                fs::copy_options::overwrite_existing);
  // Signed by another key, or changed after signing: refused on a machine that holds no key.
  const std::string json = readBytes(prepared / "manifest.json");
  const std::string unverified =
      "the signed manifest does not verify: manifest_signature_verify_failed";
  writeBytes(origin / "manifest.sig", signHex(json, TH_DEV_RSA_PRIVATE_KEY));
  expectReport(publishFrom(origin).err, kRefused, {unverified});
  writeBytes(origin / "manifest.sig", readBytes(prepared / "manifest.sig"));
  writeBytes(origin / "manifest.json", json + " ");
  expectReport(publishFrom(origin).err, kRefused, {unverified});
  writeBytes(origin / "manifest.json", json);
  ASSERT_EQ(publishFrom(origin).exitCode, 0);
  NginxServer nginx(s.server);
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  const fs::path player = s.scratch / "player";
  prepareInstall(player, nginx.url());
  EXPECT_EQ(runProcess({TH_UPDATE_CLIENT, player, nginx.url()}).out, "1.0.0\n");
  // A lower version: refused at prepare when it sees the server, and at publish in any case.
  const std::string lower = "--version '0.17.0' is not above the served release 1.0.0";
  expectReport(prepare("0.17.0", s.scratch / "lower", {"--server-url", nginx.url()}).err,
               "tarn-hollow-publish: refused, nothing was prepared:\n", {lower});
  ASSERT_EQ(prepare("0.17.0", s.scratch / "lower", {}).exitCode, 0);
  publish({"sign", "--prepared", s.scratch / "lower", "--key", TH_DEV_PRIVATE_KEY});
  expectReport(publishFrom(s.scratch / "lower").err, kRefused, {lower});
}

// Misuse exits with 2 naming the problem before the usage; help and version go to standard output;
// a --public-key that no launcher trusts is refused before any request.
TEST(Publish, CommandLineMannersForMisuseHelpAndVersion) {
  const std::string common = "release --from r --version 1 --key k --server-root s";
  const std::string rsaKey = TH_SOURCE_DIR "/tests/keys/dev-only-rsa-update-public-key.pem";
  const std::string devKey = "This build pins the DEVELOPMENT key, whose private half is public";
  const struct {
    std::string args;  // split at blanks
    int exitCode;
    std::string start;  // of standard output after success, else of standard error
  } table[] = {
      {"", 2, "missing command"},
      {"upload", 2, "unknown command 'upload'"},
      {"keygen", 2, "missing --out"},
      {"verify", 2, "missing --url"},
      {"release --from", 2, "missing value for --from"},
      {"release --from r --version 1 --key k", 2, "missing --server-root"},
      {"release --mandatory --mandatory", 2, "repeated --mandatory"},
      {"release --force", 2, "unknown argument '--force'"},
      {"release --mandatory=yes", 2, "--mandatory takes no value"},
      {"release --notes --help", 2, "missing --from"},  // a value, not a call for help
      {common + " --keep=abc", 2, "--keep 'abc' is not a whole number from 1 to 2147483647"},
      {common + " --keep 0", 2, "--keep '0' is not a whole number"},
      {"revert --to 1.0.0", 2, "missing --as"},
      {"verify --url u --slowest-link 0.0", 2, "--slowest-link '0.0' is not a speed"},
      {"keygen --out k --unencrypted --passphrase-env P", 2, "--unencrypted"},
      {"keygen --out=k --passphrase-file f --passphrase-env P", 2, "give"},
      {"keygen --out k --rsa", 2, "--rsa is for a key in a token"},
      {"release --from r --version 1 --server-root s", 2, "missing --key"},
      {common + " --pin 1234", 2, "unknown argument '--pin'"},
      {common + " --pin-env P", 2, "--pin-file and --pin-env are for a key in a token"},
      {"release --from r --version 1 --server-root s --token t", 2,
       "a key in a token needs --pkcs11-module, --token and --key-label"},
      {common + " --pkcs11-module m --token t --key-label k", 2, "a key in a token takes no --key"},
      {"verify --url http://127.0.0.1:9 --public-key /none", 1,
       "nothing was checked:\n  /none: the public key cannot be read: No such file or directory"},
      {"verify --url http://127.0.0.1:9 --public-key=" + rsaKey, 1,
       "nothing was checked:\n  " + rsaKey + ": its fingerprint is " +
           sha256Hex(readBytes(rsaKey)) + ", but this build pins " +
           sha256Hex(readBytes(TH_DEV_PUBLIC_KEY)) + ": launchers built with it trust no"},
      {"-h", 0, devKey},
      {"release --channel=--help --help", 0, devKey},
      {"--version", 0,
       "tarn-hollow-publish " TH_VERSION "\npins the update key with fingerprint " +
           sha256Hex(readBytes(TH_DEV_PUBLIC_KEY)) + "\n" + devKey},
  };
  for (const auto& row : table) {
    Args args;
    std::istringstream words(row.args);
    for (std::string word; words >> word;) args.push_back(word);
    const auto result = publish(args);
    const std::string want = row.exitCode == 0 ? row.start : "tarn-hollow-publish: " + row.start;
    EXPECT_EQ(result.exitCode, row.exitCode) << row.args;
    EXPECT_EQ((row.exitCode == 0 ? result.out : result.err).substr(0, want.size()), want);
    EXPECT_EQ(row.exitCode == 2, result.err.find("\nusage:") != std::string::npos) << result.err;
  }
  // Each command's help explains every option its synopsis names, and the exit statuses.
  for (const char* command :
       {"keygen", "release", "prepare", "sign", "publish", "revert", "verify"}) {
    const std::string help = publish({command, "--help"}).out;
    const std::string synopsis = help.substr(0, help.find("\n\n"));
    EXPECT_PRED_FORMAT2(IsSubstring, "\nExit status: 0 done; 1 refused or failed", help);
    for (size_t at = synopsis.find("--"); at != std::string::npos; at = synopsis.find("--", at + 2))
      EXPECT_PRED_FORMAT2(
          IsSubstring, "\n  " + synopsis.substr(at, synopsis.find_first_of(" ]\n", at) - at), help);
  }
}

// Release day through a cache edge with packaging/server/ as shipped: players
// (TH_RELEASE_DAY_PLAYERS, default 20) arrive over two seconds, the next release goes live among
// them. File URLs are the same in every release, so an edge serving entries on their age would keep
// the old bytes.
TEST(CacheEdge, PlayersConvergeThroughVarnishWhileTheNextReleaseGoesLive) {
  Studio s;
  const char* const kFiles[] = {"tarn-hollow", "data/world.pak", "data/level.pak"};
  ASSERT_EQ(runProcess(s.next("1.0.0")).exitCode, 0);
  NginxServer origin(s.server, "limit_rate 8m; include " TH_SOURCE_DIR
                               "/packaging/server/tarn-hollow-updates.nginx.conf;");
  ASSERT_TRUE(origin.ok()) << origin.errorLog();
  VarnishEdge edge(TH_SOURCE_DIR "/packaging/server/tarn-hollow-updates.vcl", origin.port());
  ASSERT_TRUE(edge.ok()) << edge.log();
  // What the origin serves at each step of a publish is the power-cut test's; here, the players.
  const char* const count = std::getenv("TH_RELEASE_DAY_PLAYERS");
  const int playerCount = count != nullptr ? std::atoi(count) : 20;
  const auto install = [&](int i) { return s.scratch / ("player" + std::to_string(i)); };
  const auto player = [&](int i) { return Args{TH_UPDATE_CLIENT, install(i), edge.url()}; };
  const auto holds = [&](int i, const std::string& version) {
    return std::all_of(std::begin(kFiles), std::end(kFiles), [&](const char* file) {
      return readBytes(install(i) / file) == readBytes(s.scratch / version / file);
    });
  };
  std::vector<std::unique_ptr<ChildProcess>> players;
  std::unique_ptr<ChildProcess> publisher;
  for (int i = 0; i < playerCount; ++i) {
    prepareInstall(install(i), edge.url());
    players.push_back(std::make_unique<ChildProcess>(player(i)));
    if (i == playerCount / 2) publisher = std::make_unique<ChildProcess>(s.stepwise("1.1.0"));
    std::this_thread::sleep_for(2000ms / playerCount);
  }
  EXPECT_EQ(publisher->wait(120s), 0) << publisher->err();

  // Each player is whole on one release or, having failed once, untouched; one more check brings
  // every player not yet on the new release to it, and nobody fails twice.
  for (int i = 0; i < playerCount; ++i) {
    players[i]->wait(120s);
    const std::string said = players[i]->out().substr(0, players[i]->out().find('\n'));
    const bool failed =
        said == "manifest_signature_verify_failed" || said.starts_with("download_hash_mismatch:");
    // Untouched: data/ and its two files, as prepared.
    EXPECT_TRUE(failed ? installSnapshot(install(i)).size() == 3 : holds(i, said)) << said;
    EXPECT_TRUE(said == "1.1.0" || runProcess(player(i)).out == "1.1.0\n") << said;
    EXPECT_TRUE(holds(i, "1.1.0")) << said;
  }
  expectVerify(edge.url(), {}, {"--strict"});  // the shipped settings let no cache serve stale
}

// Release N+1 live within N's second, a changed file the same size: behind the shipped settings
// the edge, which revalidates by size and time, must not keep N's bytes. Then what verify makes of
// each set of caching headers a shared cache may meet (of a redirect, the last response's), and
// of headers that cannot be fetched, each under a folder of its own, and of a file too large for
// the slowest link.
TEST(CacheEdge, TheNextReleaseWithinTheSecondAndEveryCachingVerdict) {
  Studio s;
  const std::string shipped =
      "include " TH_SOURCE_DIR "/packaging/server/tarn-hollow-updates.nginx.conf;";
  const struct {
    std::string headers, stale;  // added to a location of its own; what verify names, if anything
  } table[] = {
      {"", ""},
      {"add_header X-Frame-Options DENY;", "no Cache-Control, Surrogate-Control or Expires"},
      {"expires 1h; add_header X-Frame-Options DENY;", "\"Cache-Control: max-age=3600\""},
      {"add_header Cache-Control \"max-age=86400, must-revalidate\";",
       "\"Cache-Control: max-age=86400, must-revalidate\""},
      {"add_header Cache-Control public; add_header Cache-Control max-age=600;",
       "\"Cache-Control: public, max-age=600\""},
      {"add_header Surrogate-Control max-age=600; add_header Cache-Control no-cache;",
       "\"Surrogate-Control: max-age=600\""},
      {"add_header Expires \"Sunday, 06-Nov-2044 08:49:37 GMT\";", "\"Expires: Sunday"},
      {"add_header Cache-Control \"s-maxage=0, max-age=3600\";", ""},
      {"add_header Cache-Control \"private, max-age=600\";", ""},
      {"add_header Cache-Control \"no-store, max-age=600\";", ""},
      {"add_header Surrogate-Control \"no-store, max-age=600\"; add_header Cache-Control no-cache;",
       ""},
      // Only the last response of a redirect counts: that of "expires 1h", not "no-cache".
      {"rewrite ^/[0-9]+/(.*)$ /2/$1 redirect;", "\"Cache-Control: max-age=3600\""},
      {"if ($request_method = HEAD) { return 405; }",
       "its headers cannot be fetched: HTTP response code said error (HTTP 405)"},
  };
  std::string locations = shipped;
  for (size_t i = 0; i < std::size(table); ++i) {
    locations += " location /" + std::to_string(i) + "/ { alias " + s.server.string() + "/; " +
                 table[i].headers + " }";
  }
  NginxServer origin(s.server, locations);
  ASSERT_TRUE(origin.ok()) << origin.errorLog();
  VarnishEdge edge(TH_SOURCE_DIR "/packaging/server/tarn-hollow-updates.vcl", origin.port());
  ASSERT_TRUE(edge.ok()) << edge.log();
  const std::string level = edge.url() + "/stable/linux/files/data/level.pak";
  std::string body, error;
  std::this_thread::sleep_for(1s - std::chrono::system_clock::now().time_since_epoch() % 1s);
  ASSERT_EQ(runProcess(s.next("1.0.0")).exitCode, 0);
  ASSERT_TRUE(update::httpGet(level, body, error)) << error;
  ASSERT_EQ(runProcess(s.stepwise("1.1.0")).exitCode, 0);
  ASSERT_TRUE(update::httpGet(level, body, error)) << error;
  EXPECT_EQ(body, readBytes(s.release / "data" / "level.pak"));
  for (size_t i = 0; i < std::size(table); ++i) {
    Args named;
    for (const char* name :
         {"manifest.json", "manifest.sig", "data/level.pak", "data/world.pak", "tarn-hollow"})
      if (!table[i].stale.empty()) named.push_back(std::string(name) + ": " + table[i].stale);
    expectVerify(origin.url() + "/" + std::to_string(i), named, {"--strict"});
  }
  expectVerify(origin.url() + "/0", {kTooSlow}, {"--strict", "--slowest-link", "0.2"});
}

}  // namespace
}  // namespace th::test
