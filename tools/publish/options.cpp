#include "tools/publish/options.h"

#include <algorithm>
#include <charconv>
#include <map>
#include <set>

namespace th::publish {
namespace {

struct Grammar {
  std::set<std::string> valued;    // options that take a value
  std::set<std::string> flags;     // options that stand alone
  std::set<std::string> required;  // valued options that must be given
};

using Values = std::map<std::string, std::string>;

bool parseWords(const std::vector<std::string>& args, const Grammar& grammar, Values& values,
                std::string& error) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& name = args[i];
    const bool flag = grammar.flags.count(name) > 0;
    if (!flag && grammar.valued.count(name) == 0) {
      error = "unknown argument '" + name + "'";
      return false;
    }
    if (!flag && (i + 1 >= args.size() || args[i + 1].empty())) {
      error = "missing value for " + name;
      return false;
    }
    if (!values.emplace(name, flag ? "" : args[++i]).second) {
      error = "repeated " + name;
      return false;
    }
  }
  for (const std::string& name : grammar.required) {
    if (values.count(name) == 0) {
      error = "missing " + name;
      return false;
    }
  }
  return true;
}

void take(const Values& values, const std::string& name, std::string& into) {
  if (const auto found = values.find(name); found != values.end()) into = found->second;
}
void take(const Values& values, const std::string& name, std::filesystem::path& into) {
  if (const auto found = values.find(name); found != values.end()) into = found->second;
}

bool takePassphrase(const Values& values, PassphraseSource& source, std::string& error) {
  take(values, "--passphrase-file", source.file);
  take(values, "--passphrase-env", source.variable);
  if (!source.file.empty() && !source.variable.empty()) {
    error = "give --passphrase-file or --passphrase-env, not both";
    return false;
  }
  return true;
}

// A speed in megabits per second: digits, with one '.' among them at most, above zero.
bool takeLink(const Values& values, double& mbit, std::string& error) {
  const auto found = values.find("--slowest-link");
  if (found == values.end()) return true;
  const std::string& text = found->second;
  const char* const end = text.data() + text.size();
  const bool decimal = text.find_first_not_of("0123456789.") == std::string::npos &&
                       std::count(text.begin(), text.end(), '.') <= 1;
  double value = 0;
  if (!decimal || std::from_chars(text.data(), end, value).ptr != end || !(value > 0)) {
    error = "--slowest-link '" + text + "' is not a speed in Mbit/s above 0, like 10 or 2.5";
    return false;
  }
  mbit = value;
  return true;
}

// The link every file must reach players on, said for each command that takes it.
std::string linkUsage(const std::string& verdict) {
  return "           --slowest-link: the players' slowest link in Mbit/s (default 10); launchers\n"
         "           give up on a request after " +
         std::to_string(update::kRequestTimeoutSeconds) +
         " s, so a file that link cannot fetch in " + std::to_string(kTransferBudgetSeconds) +
         " s\n           " + verdict + ".\n";
}

// Parses the words with the options that release and revert share added to `grammar`, and takes
// those.
bool parsePublishing(const std::vector<std::string>& args, Grammar grammar, Values& values,
                     ReleaseOptions& options, std::string& error) {
  grammar.valued.insert({"--key", "--server-root", "--channel", "--platform", "--notes", "--keep",
                         "--passphrase-file", "--passphrase-env", "--slowest-link"});
  grammar.flags.insert({"--mandatory", "--no-wait"});
  grammar.required.insert({"--key", "--server-root"});
  if (!parseWords(args, grammar, values, error) ||
      !takePassphrase(values, options.passphrase, error) ||
      !takeLink(values, options.slowestLinkMbit, error)) {
    return false;
  }
  take(values, "--key", options.key);
  take(values, "--server-root", options.serverRoot);
  take(values, "--channel", options.channel);
  take(values, "--platform", options.platform);
  take(values, "--notes", options.notes);
  take(values, "--keep", options.keep);
  options.mandatory = values.count("--mandatory") > 0;
  options.wait = values.count("--no-wait") == 0;
  return true;
}

}  // namespace

std::string usageText(const std::string& command) {
  static const std::map<std::string, std::string> kUsage = {
      {"keygen",
       "       tarn-hollow-publish keygen --out DIR\n"
       "           [--passphrase-file FILE | --passphrase-env NAME | --unencrypted]\n"},
      {"release",
       "       tarn-hollow-publish release --from RELEASE_DIR --version V --key PRIVATE.pem\n"
       "           --server-root ROOT [--channel stable] [--platform linux] [--notes FILE]\n"
       "           [--mandatory] [--minimum-online-version V] [--protocol-version N] [--keep 3]\n"
       "           [--no-wait] [--passphrase-file FILE | --passphrase-env NAME]\n"
       "           [--force-below-fresh-install] [--slowest-link 10]\n"
       "           --mandatory locks PLAY for every player, those already on V too, until a\n"
       "           release without it replaces it.\n" +
           linkUsage("is refused")},
      {"revert",
       "       tarn-hollow-publish revert --to KEPT_V --as NEW_V --key PRIVATE.pem\n"
       "           --server-root ROOT [--channel stable] [--platform linux] [--notes FILE]\n"
       "           [--mandatory] [--keep 3] [--no-wait] [--passphrase-file FILE |\n"
       "           --passphrase-env NAME] [--slowest-link 10]\n"
       "           publishes the files of a kept release again as NEW_V, above the served one.\n" +
           linkUsage("is refused")},
      {"verify",
       "       tarn-hollow-publish verify --url URL [--channel stable] [--platform linux]\n"
       "           [--public-key FILE] [--strict] [--slowest-link 10]\n" +
           linkUsage("is named, and with --strict fails")},
  };
  if (const auto found = kUsage.find(command); found != kUsage.end()) {
    return "usage:" + found->second.substr(6);
  }
  return "usage:" + kUsage.at("keygen").substr(6) + kUsage.at("release") + kUsage.at("revert") +
         kUsage.at("verify") + "       tarn-hollow-publish --help | --version\n";
}

bool asksForHelp(const std::vector<std::string>& args) {
  return std::any_of(args.begin(), args.end(),
                     [](const std::string& word) { return word == "--help" || word == "-h"; });
}

bool parseKeygenOptions(const std::vector<std::string>& args, KeygenOptions& options,
                        std::string& error) {
  Values values;
  if (!parseWords(
          args, {{"--out", "--passphrase-file", "--passphrase-env"}, {"--unencrypted"}, {"--out"}},
          values, error) ||
      !takePassphrase(values, options.passphrase, error)) {
    return false;
  }
  take(values, "--out", options.out);
  options.unencrypted = values.count("--unencrypted") > 0;
  if (options.unencrypted && values.size() > 2) {
    error = "--unencrypted takes no passphrase";
    return false;
  }
  return true;
}

bool parseReleaseOptions(const std::vector<std::string>& args, ReleaseOptions& options,
                         std::string& error) {
  Values values;
  if (!parsePublishing(args,
                       {{"--from", "--version", "--minimum-online-version", "--protocol-version"},
                        {"--force-below-fresh-install"},
                        {"--from", "--version"}},
                       values, options, error)) {
    return false;
  }
  take(values, "--from", options.from);
  take(values, "--version", options.version);
  take(values, "--minimum-online-version", options.minimumOnlineVersion);
  take(values, "--protocol-version", options.protocolVersion);
  options.belowFreshInstall = values.count("--force-below-fresh-install") > 0;
  return true;
}

bool parseRevertOptions(const std::vector<std::string>& args, ReleaseOptions& options,
                        std::string& error) {
  Values values;
  if (!parsePublishing(args, {{"--to", "--as"}, {}, {"--to", "--as"}}, values, options, error)) {
    return false;
  }
  take(values, "--to", options.revertTo);
  take(values, "--as", options.version);
  return true;
}

bool parseVerifyOptions(const std::vector<std::string>& args, VerifyOptions& options,
                        std::string& error) {
  Values values;
  if (!parseWords(args,
                  {{"--url", "--channel", "--platform", "--public-key", "--slowest-link"},
                   {"--strict"},
                   {"--url"}},
                  values, error) ||
      !takeLink(values, options.slowestLinkMbit, error)) {
    return false;
  }
  take(values, "--url", options.url);
  take(values, "--channel", options.channel);
  take(values, "--platform", options.platform);
  take(values, "--public-key", options.publicKey);
  options.strict = values.count("--strict") > 0;
  return true;
}

}  // namespace th::publish
