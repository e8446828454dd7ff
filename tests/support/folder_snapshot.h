#pragma once

#include <filesystem>
#include <map>
#include <string>

namespace th::test {

// What a snapshot records for one entry below the folder.
struct SnapshotEntry {
  std::string type;     // "file", "folder", "symlink" or "other"
  unsigned mode = 0;    // permission bits (07777)
  std::string content;  // SHA-256 of a file's bytes, a symlink's target, empty otherwise
  bool operator==(const SnapshotEntry&) const = default;
};

// Every entry below a folder (not following symlinks), keyed by '/'-separated relative path.
using FolderSnapshot = std::map<std::string, SnapshotEntry>;

FolderSnapshot snapshotFolder(const std::filesystem::path& folder);

// Empty when equal; otherwise one line per difference: "- path (...)" only before,
// "+ path (...)" only after, "~ path: (...) -> (...)" changed. Use as
// EXPECT_EQ(snapshotDiff(before, snapshotFolder(dir)), "");
std::string snapshotDiff(const FolderSnapshot& before, const FolderSnapshot& after);

}  // namespace th::test
