#pragma once
// Reading a release file exactly once: opened without following a link, judged on the open
// descriptor, and hashed from the very bytes that are published, so that a file swapped for a
// link (or changed) after the scan cannot slip into a release.

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "update/file_descriptor.h"

namespace th::publish {

struct OpenedFile {
  update::FileDescriptor fd;
  std::uint64_t size = 0;   // at the open; what is published is counted while it is read
  bool executable = false;  // the owner's execute bit
};

// Opens `source` for reading, refusing a link in its last element or anything but a regular file.
// On failure `problem` says why ("cannot be read: ...", "not a regular file").
bool openReleaseFile(const std::filesystem::path& source, std::optional<OpenedFile>& file,
                     std::string& problem);

// Reads the open file from its start, hashing it, and writes the bytes to a new file at `place`
// unless `place` is empty. `digest` and `size` describe exactly the bytes read.
bool streamReleaseFile(const OpenedFile& file, const std::filesystem::path& place,
                       std::string& digest, std::uint64_t& size, std::string& problem);

}  // namespace th::publish
