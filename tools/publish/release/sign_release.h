#pragma once
// The second step, wherever the key is: the prepared manifest shown, then signed. Signing writes
// manifest.sig beside it and changes nothing else.

#include <cstdint>
#include <string>
#include <vector>

#include "tools/publish/options.h"
#include "update/manifest.h"

namespace th::publish {

// A prepared manifest as read once: what is shown is what is signed.
struct PreparedManifest {
  std::string json;
  update::Manifest manifest;
  std::string digest;  // SHA-256 of `json`
  std::uint64_t bytes = 0;
};

// Reads `folder`/manifest.json as the launcher will; false with a problem line naming the file.
bool readPreparedManifest(const std::filesystem::path& folder, PreparedManifest& prepared,
                          std::vector<std::string>& problems);

// Signs the manifest with the key of `options` (its public half must be the key this build
// pins), checks the signature as launchers will, and writes `options.prepared`/manifest.sig.
bool signPrepared(const ReleaseOptions& options, const PreparedManifest& prepared,
                  std::vector<std::string>& problems, std::vector<std::string>& warnings);

}  // namespace th::publish
