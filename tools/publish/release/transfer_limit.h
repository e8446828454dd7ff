#pragma once
// Files too large for the slowest link a studio supports. A launcher gives every request, a whole
// file's download included, update::kRequestTimeoutSeconds in all, and starts a file cut off
// again from its first byte: on a link too slow for a file, that file never installs.

#include <string>
#include <vector>

#include "update/http.h"
#include "update/manifest.h"

namespace th::publish {

// A file must arrive within two thirds of the launcher's limit at the stated link; the rest is
// room for connection and TLS set-up and for a link that dips below its usual speed.
constexpr long kTransferBudgetSeconds = update::kRequestTimeoutSeconds * 2 / 3;

// The slowest link a release supports unless the studio states another, in megabits (10^6 bits)
// per second, as links are sold.
constexpr double kDefaultSlowestLinkMbit = 10;

// One line per file that a link of `slowestLinkMbit` cannot fetch within the budget: its size, the
// time it needs, the slowest link that fetches it in time, and what to do about it.
std::vector<std::string> overTransferLimit(const std::vector<update::ManifestFile>& files,
                                           double slowestLinkMbit);

}  // namespace th::publish
