#pragma once
// Publishing one signed release into an update server's folder tree.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "tools/publish/options.h"

namespace th::publish {

struct PublishSummary {
  std::string version, channel, platform;  // as published
  std::filesystem::path channelFolder;     // ROOT / channel / platform
  std::size_t files = 0;
  std::uint64_t bytes = 0;
  std::size_t linked = 0;             // unchanged files hard-linked from the release served before
  std::vector<std::string> pruned;    // versions of older releases removed beyond --keep
  std::vector<std::string> warnings;  // said whether or not the release is published
};

// Checks everything first (options, key, release folder), then assembles the release in a
// folder of its own beside the served one (see release_store.h): unchanged files hard-linked
// from the served release, the others copied and the copies hashed. It writes and signs the
// manifest, reads it back through the launcher's own parser and signature check, flushes the
// folder to disk and makes it current in one rename, then prunes old releases. On refusal or
// failure the served tree is left as it was and `problems` lists every reason, one line each,
// naming the offending file where there is one. With `options.prepared` it publishes a release
// prepared and signed elsewhere: the signature must verify against the pinned key and every
// prepared file must be as the signed manifest lists it, and the manifest is served as signed.
bool publishRelease(const ReleaseOptions& options, PublishSummary& summary,
                    std::vector<std::string>& problems);

}  // namespace th::publish
