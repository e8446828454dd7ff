#pragma once
// The releases the figures are measured on: files of pseudo-random bytes published under a
// server root with a manifest signed by the development key, and installs of them.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace th::bench {

struct DataSet {
  std::string name;                // folder under the server root, and the server URL's path
  std::filesystem::path files;     // the published files: <root>/<name>/stable/linux/files
  std::vector<std::string> paths;  // relative, in manifest order
  std::uint64_t bytes = 0;
};

// `count` files of `size` bytes each, no two alike.
DataSet publishDataSet(const std::filesystem::path& serverRoot, const std::string& name, int count,
                       std::size_t size);

// A current install of `set` (key, server address and the files). The files are hard links to
// the published ones, so the engine and its peer read the very same bytes.
void linkInstall(const DataSet& set, const std::filesystem::path& installDir,
                 const std::string& serverUrl);

}  // namespace th::bench
