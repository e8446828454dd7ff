#pragma once
// Flushing what was written to disk before it is published, so that a crash or power cut right
// after a release goes live cannot leave players a release whose files were never written.

#include <filesystem>

namespace th::publish {

// fsync of one file or folder. False when it cannot be opened or flushed.
bool syncPath(const std::filesystem::path& path);

// fsync of every file and folder below `folder`, and of `folder` itself.
bool syncTree(const std::filesystem::path& folder);

}  // namespace th::publish
