#pragma once
// Publishing one signed release into an update server's folder tree.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "tools/publish/options.h"

namespace th::publish {

struct PublishSummary {
  std::filesystem::path channelFolder;  // ROOT / channel / platform
  std::size_t files = 0;
  std::uint64_t bytes = 0;
};

// Checks everything first (options, key, release folder), copies the files into a staging
// folder beside the channel's files, hashes the copies, writes and signs the manifest and
// reads it back through the launcher's own parser and signature check. Only then does it move
// the files into ROOT/<channel>/<platform>/files/ and the manifest and its signature, last,
// beside them, each by rename. On refusal nothing is published and `problems` lists every
// reason, one line each, naming the offending file where there is one.
bool publishRelease(const ReleaseOptions& options, PublishSummary& summary,
                    std::vector<std::string>& problems);

}  // namespace th::publish
