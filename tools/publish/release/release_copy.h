#pragma once
// Reading a release file exactly once: opened beneath the release folder without following a
// link anywhere on the way, judged on the open descriptor, and hashed from the very bytes that
// are published, so that a file or folder swapped for a link (or changed) after the scan cannot
// slip into a release, nor lead the copy to a file outside it (the signing key, say).

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

// The release folder, opened once before it is judged.
class ReleaseTree {
 public:
  explicit ReleaseTree(const std::filesystem::path& root);
  // Where the opened folder stands, links resolved (the path given, if it cannot be opened).
  const std::filesystem::path& path() const { return path_; }

  // Opens `relative` beneath the folder for reading, refusing a link in any of its elements or
  // anything but a regular file. On failure `problem` says why ("cannot be read: ...", "a
  // symbolic link on its way ...", "not a regular file").
  bool openFile(const std::string& relative, std::optional<OpenedFile>& file,
                std::string& problem) const;

 private:
  update::FileDescriptor root_;
  std::filesystem::path path_;
};

// Reads the open file from its start, hashing it, and writes the bytes to a new file at `place`
// unless `place` is empty. `digest` and `size` describe exactly the bytes read.
bool streamReleaseFile(const OpenedFile& file, const std::filesystem::path& place,
                       std::string& digest, std::uint64_t& size, std::string& problem);

}  // namespace th::publish
