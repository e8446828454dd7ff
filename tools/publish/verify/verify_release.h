#pragma once
// Checking a served release the way a player's launcher sees it: through the engine's own
// transport, signature check and manifest parser, then every listed file downloaded and
// compared with the manifest.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tools/publish/options.h"

namespace th::publish {

struct VerifySummary {
  std::string folderUrl;  // URL / channel / platform
  std::string version;
  std::size_t files = 0;
  std::uint64_t bytes = 0;
  // Responses a shared cache may serve stale, one line each naming the header, what would keep
  // players from the release (a lock-out, a file too large for the slowest link) (with --strict
  // they are problems instead).
  std::vector<std::string> warnings;
};

// With --public-key, the key file must be readable and be the key this build pins, or every
// verdict would be about a key no launcher trusts; true when none is given. No request is made.
bool checkPublicKeyOption(const VerifyOptions& options, std::vector<std::string>& problems);

// True when the manifest verifies against the pinned key, names the asked channel and platform,
// and every file it lists downloads with its digest and size (and, with --strict, no response
// may be served stale by a shared cache, nor may the release keep players from it, and every file
// fits the slowest link). Otherwise `problems` holds a line for the manifest, or one per bad file.
bool verifyRelease(const VerifyOptions& options, VerifySummary& summary,
                   std::vector<std::string>& problems);

}  // namespace th::publish
