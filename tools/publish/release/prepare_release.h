#pragma once
// The first of the three steps that keep the signing key off the machines that build and serve:
// a release folder judged, hashed and described by its manifest, without any key, in a folder of
// its own that can be carried to wherever the key is.

#include <cstdint>
#include <string>
#include <vector>

#include "tools/publish/options.h"

namespace th::publish {

struct PrepareSummary {
  std::size_t files = 0;
  std::uint64_t bytes = 0;
  std::string manifestDigest;         // SHA-256 of manifest.json, as the signer will show it
  std::vector<std::string> warnings;  // said whether or not the folder is prepared
};

// Runs the guard rails `release` runs (and, with a served URL, those that need the served
// release), then copies the release's files into `options.prepared`/files, hashing them on the
// way, and writes `options.prepared`/manifest.json. The folder must not exist yet, or be empty.
// On refusal or failure nothing is left behind and `problems` lists every reason.
bool prepareRelease(const ReleaseOptions& options, PrepareSummary& summary,
                    std::vector<std::string>& problems);

}  // namespace th::publish
