#include "tools/publish/options.h"

#include <algorithm>
#include <charconv>
#include <initializer_list>
#include <map>
#include <set>

namespace th::publish {
namespace {

struct Grammar {
  std::set<std::string> valued;    // options that take a value
  std::set<std::string> flags;     // options that stand alone
  std::set<std::string> required;  // valued options that must be given
};

const std::set<std::string> kTokenOptions = {"--pkcs11-module", "--token", "--key-label"};

// A key file's options, and a token key's; which one is used is judged once parsed.
Grammar withKeyOptions(Grammar own) {
  own.valued.insert({"--passphrase-file", "--passphrase-env", "--pin-file", "--pin-env"});
  own.valued.insert(kTokenOptions.begin(), kTokenOptions.end());
  return own;
}

// What `release` takes about the release itself; `prepare` takes the same.
Grammar describingGrammar(Grammar own) {
  own.valued.insert({"--from", "--version", "--minimum-online-version", "--protocol-version",
                     "--package", "--channel", "--platform", "--notes", "--slowest-link"});
  own.flags.insert({"--mandatory", "--force-below-fresh-install"});
  own.required.insert({"--from", "--version"});
  return own;
}

Grammar publishingGrammar(Grammar own) {
  own.valued.insert(
      {"--key", "--server-root", "--channel", "--platform", "--notes", "--keep", "--slowest-link"});
  own.flags.insert({"--mandatory", "--no-wait"});
  own.required.insert({"--server-root"});
  return withKeyOptions(own);
}

const Grammar& grammarOf(const std::string& command) {
  static const std::map<std::string, Grammar> kGrammars = {
      {"keygen", withKeyOptions({{"--out"}, {"--unencrypted", "--rsa"}, {"--out"}})},
      {"release", describingGrammar(publishingGrammar({}))},
      {"revert", publishingGrammar({{"--to", "--as"}, {}, {"--to", "--as"}})},
      {"prepare", describingGrammar({{"--out", "--server-url"}, {}, {"--out"}})},
      {"sign", withKeyOptions({{"--prepared", "--key"}, {}, {"--prepared"}})},
      {"publish",
       {{"--prepared", "--server-root", "--keep", "--slowest-link", "--public-key"},
        {"--no-wait", "--force-below-fresh-install"},
        {"--prepared", "--server-root"}}},
      {"verify",
       {{"--url", "--channel", "--platform", "--public-key", "--slowest-link"},
        {"--strict"},
        {"--url"}}},
  };
  return kGrammars.at(command);
}

using Values = std::map<std::string, std::string>;

// One word of the command line: "--name value", or "--name=value" in one word.
struct Word {
  std::string name, value;
  bool joined = false;  // the value came after '=' in the same word
};

Word splitWord(const std::string& word) {
  const size_t equals = word.find('=');
  if (!word.starts_with("--") || equals == std::string::npos) return {word, "", false};
  return {word.substr(0, equals), word.substr(equals + 1), true};
}

bool takeWord(const std::vector<std::string>& args, size_t& i, const Grammar& grammar,
              Values& values, std::string& error) {
  Word word = splitWord(args[i]);
  const bool flag = grammar.flags.count(word.name) > 0;
  if (!flag && grammar.valued.count(word.name) == 0) {
    error = "unknown argument '" + args[i] + "'";
    return false;
  }
  if (flag && word.joined) {
    error = word.name + " takes no value";
    return false;
  }
  if (!flag && !word.joined && i + 1 < args.size()) word.value = args[++i];
  if (!flag && word.value.empty()) {
    error = "missing value for " + word.name;
    return false;
  }
  if (!values.emplace(word.name, word.value).second) {
    error = "repeated " + word.name;
    return false;
  }
  return true;
}

bool parseWords(const std::vector<std::string>& args, const Grammar& grammar, Values& values,
                std::string& error) {
  for (size_t i = 0; i < args.size(); ++i) {
    if (!takeWord(args, i, grammar, values, error)) return false;
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

// A passphrase's or PIN's source: --STEM-file or --STEM-env, not both.
bool takeSecretSource(const Values& values, PassphraseSource& source, std::string& error) {
  const std::string file = "--" + source.option + "-file", env = "--" + source.option + "-env";
  take(values, file, source.file);
  take(values, env, source.variable);
  if (!source.file.empty() && !source.variable.empty()) {
    error = "give " + file + " or " + env + ", not both";
    return false;
  }
  return true;
}

// The token's three options come together, and the PIN's only with them; a key in a token
// takes none of a key file's options (`fileOptions`, the ones given).
bool takeToken(const Values& values, TokenKeyName& token, bool fileOptions, std::string& error) {
  take(values, "--pkcs11-module", token.module);
  take(values, "--token", token.token);
  take(values, "--key-label", token.keyLabel);
  if (!takeSecretSource(values, token.pin, error)) return false;
  const auto named = std::count_if(kTokenOptions.begin(), kTokenOptions.end(),
                                   [&](const std::string& name) { return values.count(name); });
  if (named != 0 && named != 3) {
    error = "a key in a token needs --pkcs11-module, --token and --key-label";
  } else if (named == 0 && (!token.pin.file.empty() || !token.pin.variable.empty())) {
    error = "--pin-file and --pin-env are for a key in a token";
  } else if (named == 3 && fileOptions) {
    error = "a key in a token takes no --key, --passphrase-file, --passphrase-env or --unencrypted";
  }
  return error.empty();
}

bool takeKeyOptions(const Values& values, SigningKeyOptions& key, std::string& error) {
  take(values, "--key", key.file);
  const bool fileOptions = values.count("--key") || values.count("--passphrase-file") ||
                           values.count("--passphrase-env");
  if (!takeSecretSource(values, key.passphrase, error) ||
      !takeToken(values, key.token, fileOptions, error)) {
    return false;
  }
  if (key.file.empty() && !key.token.given()) error = "missing --key";
  return error.empty();
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

bool wholeNumberFromOne(const std::string& digits) {
  int value = 0;
  const char* end = digits.data() + digits.size();
  const auto [stop, result] = std::from_chars(digits.data(), end, value);
  return result == std::errc() && stop == end && value >= 1 && digits.front() != '+';
}

template <typename Field>
void takeEach(const Values& values, std::initializer_list<std::pair<const char*, Field*>> fields) {
  for (const auto& [name, field] : fields) take(values, name, *field);
}

// Every option a publishing command may have been given, each into its field.
void takeAll(const Values& values, ReleaseOptions& options) {
  takeEach<std::filesystem::path>(values, {{"--server-root", &options.serverRoot},
                                           {"--from", &options.from},
                                           {"--notes", &options.notes},
                                           {"--package", &options.package},
                                           {"--out", &options.prepared},
                                           {"--prepared", &options.prepared},
                                           {"--public-key", &options.publicKey}});
  takeEach<std::string>(values, {{"--channel", &options.channel},
                                 {"--platform", &options.platform},
                                 {"--keep", &options.keep},
                                 {"--version", &options.version},
                                 {"--as", &options.version},
                                 {"--to", &options.revertTo},
                                 {"--minimum-online-version", &options.minimumOnlineVersion},
                                 {"--protocol-version", &options.protocolVersion},
                                 {"--server-url", &options.servedUrl}});
  options.mandatory = values.count("--mandatory") > 0;
  options.wait = values.count("--no-wait") == 0;
  options.belowFreshInstall = values.count("--force-below-fresh-install") > 0;
}

}  // namespace

bool asksForHelp(const std::string& command, const std::vector<std::string>& args) {
  const Grammar& grammar = grammarOf(command);
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i] == "--help" || args[i] == "-h") return true;
    const Word word = splitWord(args[i]);
    if (!word.joined && grammar.valued.count(word.name) > 0) ++i;  // the next word is its value
  }
  return false;
}

bool parseKeygenOptions(const std::vector<std::string>& args, KeygenOptions& options,
                        std::string& error) {
  Values values;
  if (!parseWords(args, grammarOf("keygen"), values, error) ||
      !takeSecretSource(values, options.passphrase, error)) {
    return false;
  }
  take(values, "--out", options.out);
  options.unencrypted = values.count("--unencrypted") > 0;
  options.rsa = values.count("--rsa") > 0;
  const bool fileOptions = options.unencrypted || !options.passphrase.file.empty() ||
                           !options.passphrase.variable.empty();
  if (!takeToken(values, options.token, fileOptions, error)) return false;
  if (options.rsa && !options.token.given()) {
    error = "--rsa is for a key in a token";
    return false;
  }
  if (options.unencrypted && values.size() > 2) {
    error = "--unencrypted takes no passphrase";
    return false;
  }
  return true;
}

// The commands that take a signing key.
bool signs(const std::string& command) {
  return command == "release" || command == "revert" || command == "sign";
}

bool parsePublishingOptions(const std::string& command, const std::vector<std::string>& args,
                            ReleaseOptions& options, std::string& error) {
  Values values;
  if (!parseWords(args, grammarOf(command), values, error) ||
      (signs(command) && !takeKeyOptions(values, options.key, error)) ||
      !takeLink(values, options.slowestLinkMbit, error)) {
    return false;
  }
  takeAll(values, options);
  if (!wholeNumberFromOne(options.keep)) {
    error = "--keep '" + options.keep + "' is not a whole number from 1 to 2147483647";
    return false;
  }
  return true;
}

bool parseVerifyOptions(const std::vector<std::string>& args, VerifyOptions& options,
                        std::string& error) {
  Values values;
  if (!parseWords(args, grammarOf("verify"), values, error) ||
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
