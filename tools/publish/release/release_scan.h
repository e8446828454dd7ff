#pragma once
// Walking a release folder: which files a release holds, and which of them cannot be shipped.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace th::publish {

struct ReleaseFile {
  std::string path;        // relative, '/'-separated: the manifest's name for the file
  std::string source;      // where its bytes are, relative to the release folder as found
                           // (for a link inside the release: its target)
  std::uint64_t size = 0;  // at the time of the walk; the copy's size is what is published
};

// True when `path` is `folder` or lies below it, compared element by element as written.
bool isWithin(const std::filesystem::path& path, const std::filesystem::path& folder);

// Lists every file below `root` (a path without links) in a stable (sorted) order. Files that a
// release may not hold are reported in `problems`, one "path: reason" line each, all of them, not
// just the first: names the launcher refuses or cannot fetch, names every install keeps for itself,
// links leading out of the release or to folders, broken links, and things that are not regular
// files. True when the release is usable: no problems and at least one file.
bool scanRelease(const std::filesystem::path& root, std::vector<ReleaseFile>& files,
                 std::vector<std::string>& problems);

}  // namespace th::publish
