#pragma once

#include <filesystem>
#include <map>
#include <string>

namespace th::test {

// One entry below the folder: "file <mode> <sha256>", "folder <mode>", "symlink <mode> <target>".
using FolderSnapshot = std::map<std::string, std::string>;

// Every entry below a folder (not following symlinks), keyed by '/'-separated relative path.
FolderSnapshot snapshotFolder(const std::filesystem::path& folder);

// An install folder without the updater's work folder, which failed updates leave behind.
FolderSnapshot installSnapshot(const std::filesystem::path& installDir);

// Empty when equal; otherwise one line per difference ("- path", "+ path", "~ path: a -> b").
// Use as EXPECT_EQ(snapshotDiff(before, snapshotFolder(dir)), "");
std::string snapshotDiff(const FolderSnapshot& before, const FolderSnapshot& after);

}  // namespace th::test
