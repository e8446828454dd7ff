#pragma once
// What tarn-hollow-publish says of its own command line: the synopsis shown after misuse, and
// the help that explains every option.

#include <string>

namespace th::publish {

// The synopsis of one command ("keygen", "release", "revert", "verify"), or of all for any other
// name.
std::string usageText(const std::string& command = "");

// The synopsis, then every option of the command (of all commands for any other name) explained,
// then the exit statuses.
std::string helpText(const std::string& command = "");

}  // namespace th::publish
