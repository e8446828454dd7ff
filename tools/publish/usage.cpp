#include "tools/publish/usage.h"

#include <map>
#include <vector>

#include "tools/publish/release/transfer_limit.h"

namespace th::publish {
namespace {

// The explanation of each option, the same wherever the option is taken.
const std::map<std::string, std::string>& optionLines() {
  static const std::map<std::string, std::string> kLines = {
      {"--out",
       "  --out DIR                where the command writes (keygen: the two key files)\n"},
      {"--passphrase-file",
       "  --passphrase-file FILE   read the key's passphrase from the first line of FILE\n"},
      {"--passphrase-env",
       "  --passphrase-env NAME    read it from the environment variable NAME\n"
       "                           (neither: asked for on the terminal; never an argument)\n"},
      {"--unencrypted",
       "  --unencrypted            write the private key in the clear (throw-away keys only)\n"},
      {"--from",
       "  --from RELEASE_DIR       the release's files, laid out as an install holds them\n"},
      {"--version",
       "  --version V              dotted numbers like 1.4.2, above the served release's\n"},
      {"--key",
       "  --key PRIVATE.pem        the signing key; its public half must be the key this build "
       "pins\n"
       "                           (or a key in a token, the same so: --pkcs11-module and on)\n"},
      {"--pkcs11-module",
       "  --pkcs11-module LIB      the token's PKCS#11 module (a path, or a file name in "
       "p11-kit's\n"
       "                           module folder); with --token and --key-label, the key in a "
       "token\n"},
      {"--token", "  --token LABEL            the token's label\n"},
      {"--key-label", "  --key-label LABEL        the key pair's label in the token\n"},
      {"--pin-file",
       "  --pin-file FILE          read the token's PIN from the first line of FILE\n"},
      {"--pin-env",
       "  --pin-env NAME           read it from the environment variable NAME\n"
       "                           (neither: asked for on the terminal; never an argument)\n"},
      {"--rsa",
       "  --rsa                    make an RSA 3072 key in the token (default EC P-256)\n"},
      {"--server-root",
       "  --server-root ROOT       the folder the update server serves; the release goes live in\n"
       "                           ROOT/CHANNEL/PLATFORM in one step\n"},
      {"--notes",
       "  --notes FILE             release notes, shown by launchers from 80 bytes up\n"},
      {"--mandatory",
       "  --mandatory              lock PLAY for every player, those already on this version too,\n"
       "                           until a release without --mandatory replaces it\n"},
      {"--keep",
       "  --keep N                 releases kept on the server, the served one included (default "
       "3);\n"
       "                           only kept releases can be brought back with revert\n"},
      {"--no-wait",
       "  --no-wait                give up instead of waiting while another release of the same\n"
       "                           channel and platform is being published\n"},
      {"--channel",
       "  --channel NAME           default stable, the only channel launchers ask for\n"},
      {"--platform",
       "  --platform NAME          default linux, the only platform launchers ask for\n"},
      {"--minimum-online-version",
       "  --minimum-online-version V  players below V may not PLAY until they have updated;\n"
       "                           at most the release's own version\n"},
      {"--protocol-version",
       "  --protocol-version N     a whole number written into the manifest (default 0);\n"
       "                           launchers do not act on it\n"},
      {"--force-below-fresh-install",
       "  --force-below-fresh-install  allow a version below 0.16.117, what an install\n"
       "                           without a version marker counts as: no new player would\n"
       "                           ever install it\n"},
      {"--package",
       "  --package GAME.tar.gz    the game package new players install: warn when its\n"
       "                           launcher is not the release's (each new player's first\n"
       "                           start would update it and restart)\n"},
      {"--slowest-link",
       "  --slowest-link MBIT      the slowest link players are supported on, in Mbit/s (default " +
           std::to_string(static_cast<int>(kDefaultSlowestLinkMbit)) +
           ");\n"
           "                           launchers give up on a request after " +
           std::to_string(update::kRequestTimeoutSeconds) +
           " s and start the file over,\n"
           "                           so a file that link cannot fetch in " +
           std::to_string(kTransferBudgetSeconds) +
           " s is refused\n"
           "                           (verify: named, and with --strict it fails)\n"},
      {"--to", "  --to KEPT_V              the kept release whose files come back\n"},
      {"--as", "  --as NEW_V               the new version, above the served release's\n"},
      {"--server-url",
       "  --server-url URL         the update server's address: also judge the release against\n"
       "                           what it serves now (above its version; files that changed)\n"},
      {"--prepared", "  --prepared DIR           the folder prepare wrote, carried here whole\n"},
      {"--public-key",
       "  --public-key FILE        the key to check signatures with, when this build has none\n"
       "                           built in; it must be the key this build pins\n"},
      {"--url",
       "  --url URL                the update server's address, as in data/update_server.txt\n"},
      {"--strict",
       "  --strict                 also fail on what keeps players from the release: caching a\n"
       "                           shared cache may serve stale, a release that locks PLAY, a\n"
       "                           file too large for the slowest link\n"},
  };
  return kLines;
}

struct Command {
  std::string synopsis, purpose;
  std::vector<std::string> options;  // explained in this order
};

const std::map<std::string, Command>& commands() {
  static const std::vector<std::string> kDescribing = {
      "--notes",    "--mandatory",    "--minimum-online-version", "--channel",
      "--platform", "--slowest-link", "--protocol-version",       "--force-below-fresh-install",
      "--package"};
  static const std::vector<std::string> kServing = {"--server-root", "--keep", "--no-wait"};
  static const std::vector<std::string> kToken = {"--pkcs11-module", "--token", "--key-label",
                                                  "--pin-file", "--pin-env"};
  static const std::vector<std::string> kSigning = {
      "--key",   "--passphrase-file", "--passphrase-env", "--pkcs11-module",
      "--token", "--key-label",       "--pin-file",       "--pin-env"};
  const auto join = [](std::vector<std::vector<std::string>> parts) {
    std::vector<std::string> all;
    for (const auto& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
  };
  static const std::map<std::string, Command> kCommands = {
      {"keygen",
       {"tarn-hollow-publish keygen --out DIR\n"
        "    [--passphrase-file FILE | --passphrase-env NAME | --unencrypted]\n"
        "tarn-hollow-publish keygen --out DIR --pkcs11-module LIB --token LABEL\n"
        "    --key-label LABEL [--pin-file FILE | --pin-env NAME] [--rsa]\n",
        "Makes a signing key pair in DIR, or in a token (only the public key goes to DIR), and\n"
        "prints the fingerprint to build launchers with.\n",
        join({{"--out", "--passphrase-file", "--passphrase-env", "--unencrypted"},
              kToken,
              {"--rsa"}})}},
      {"release",
       {"tarn-hollow-publish release --from RELEASE_DIR --version V --key PRIVATE.pem\n"
        "    --server-root ROOT [--notes FILE] [--mandatory] [--minimum-online-version V]\n"
        "    [--keep 3] [--no-wait] [--passphrase-file FILE | --passphrase-env NAME]\n"
        "    [--channel stable] [--platform linux] [--protocol-version N]\n"
        "    [--force-below-fresh-install] [--package GAME.tar.gz] [--slowest-link 10]\n"
        "  with a key in a token instead of --key and its passphrase:\n"
        "    --pkcs11-module LIB --token LABEL --key-label LABEL\n"
        "    [--pin-file FILE | --pin-env NAME]\n",
        "Publishes RELEASE_DIR as release V, signed: prepare, sign and publish in one run.\n",
        join({{"--from", "--version"}, kSigning, kServing, kDescribing})}},
      {"prepare",
       {"tarn-hollow-publish prepare --from RELEASE_DIR --version V --out PREPARED_DIR\n"
        "    [--server-url URL] [--notes FILE] [--mandatory] [--minimum-online-version V]\n"
        "    [--channel stable] [--platform linux] [--protocol-version N] [--slowest-link 10]\n"
        "    [--force-below-fresh-install] [--package GAME.tar.gz]\n",
        "Step 1 of 3, with no key: judges RELEASE_DIR as release does, copies and hashes its\n"
        "files into PREPARED_DIR (new or empty) and writes the manifest to be signed.\n",
        join({{"--from", "--version", "--out", "--server-url"}, kDescribing})}},
      {"sign",
       {"tarn-hollow-publish sign --prepared DIR --key PRIVATE.pem\n"
        "    [--passphrase-file FILE | --passphrase-env NAME]\n"
        "  with a key in a token instead of --key and its passphrase:\n"
        "    --pkcs11-module LIB --token LABEL --key-label LABEL\n"
        "    [--pin-file FILE | --pin-env NAME]\n",
        "Step 2 of 3, where the key is: shows what it signs, then writes DIR/manifest.sig.\n",
        join({{"--prepared"}, kSigning})}},
      {"publish",
       {"tarn-hollow-publish publish --prepared DIR --server-root ROOT [--keep 3] [--no-wait]\n"
        "    [--public-key FILE] [--slowest-link 10] [--force-below-fresh-install]\n",
        "Step 3 of 3, with no key: checks the signature and every prepared file, then makes the\n"
        "release live in one step, as release does.\n",
        join({{"--prepared"},
              kServing,
              {"--public-key", "--slowest-link", "--force-below-fresh-install"}})}},
      {"revert",
       {"tarn-hollow-publish revert --to KEPT_V --as NEW_V --key PRIVATE.pem\n"
        "    --server-root ROOT [--notes FILE] [--mandatory] [--keep 3] [--no-wait]\n"
        "    [--passphrase-file FILE | --passphrase-env NAME] [--channel stable]\n"
        "    [--platform linux] [--slowest-link 10]\n"
        "  with a key in a token instead of --key and its passphrase:\n"
        "    --pkcs11-module LIB --token LABEL --key-label LABEL\n"
        "    [--pin-file FILE | --pin-env NAME]\n",
        "Publishes the files of a kept release again as NEW_V, above the served one: players\n"
        "never install a lower version, so this is how a bad release is rolled back.\n",
        join({{"--to", "--as"},
              kSigning,
              kServing,
              {"--notes", "--mandatory", "--channel", "--platform", "--slowest-link"}})}},
      {"verify",
       {"tarn-hollow-publish verify --url URL [--strict] [--public-key FILE]\n"
        "    [--channel stable] [--platform linux] [--slowest-link 10]\n",
        "Checks a served release as players' launchers see it: signature, manifest, every file.\n",
        {"--url", "--strict", "--public-key", "--channel", "--platform", "--slowest-link"}}},
  };
  return kCommands;
}

std::string explained(const Command& command) {
  std::string text = command.purpose;
  for (const std::string& option : command.options) text += optionLines().at(option);
  return text;
}

const std::string kExitStatus =
    "Options take their value as the next word or after '=' (--keep=5).\n"
    "Exit status: 0 done; 1 refused or failed (nothing published, or the release is not good);\n"
    "2 misuse of the command line.\n";

}  // namespace

std::string usageText(const std::string& command) {
  if (const auto found = commands().find(command); found != commands().end()) {
    return "usage: " + found->second.synopsis + "(tarn-hollow-publish " + command +
           " --help explains every option)\n";
  }
  std::string text = "usage:\n";
  for (const auto& [name, each] : commands()) text += "  " + each.synopsis;
  return text + "  tarn-hollow-publish --help | --version\n";
}

std::string helpText(const std::string& command) {
  if (const auto found = commands().find(command); found != commands().end()) {
    return "usage: " + found->second.synopsis + "\n" + explained(found->second) + "\n" +
           kExitStatus;
  }
  std::string text = "tarn-hollow-publish: the studio's release tool for Tarn Hollow.\n\n";
  for (const auto& [name, each] : commands()) {
    text += "usage: " + each.synopsis + "\n" + explained(each) + "\n";
  }
  return text +
         "tarn-hollow-publish --version prints the tool's version and the fingerprint of\n"
         "the update key it pins.\n\n" +
         kExitStatus;
}

}  // namespace th::publish
