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
  // Responses a shared cache may serve stale, one line each naming the header, and files too
  // large for the slowest link, one line each (with --strict they are problems instead).
  std::vector<std::string> warnings;
};

// True when the manifest verifies against the pinned key, names the asked channel and platform,
// and every file it lists downloads with its digest and size (and, with --strict, no response
// may be served stale by a shared cache and every file fits the slowest link). Otherwise
// `problems` holds a line for the manifest, or one per bad file.
bool verifyRelease(const VerifyOptions& options, VerifySummary& summary,
                   std::vector<std::string>& problems);

// The public key (PEM) built into this variant of the tool; empty when the build was given none.
// Each variant defines it, like the engine's pinned fingerprint.
std::string_view builtInPublicKey();

}  // namespace th::publish
