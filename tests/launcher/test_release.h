#pragma once
// Short ways to write the releases the launcher tests serve.

#include <string>
#include <utility>
#include <vector>

#include "tests/support/release_builder.h"

namespace th::test {

inline ReleaseFile releaseFile(std::string path, std::string bytes, bool executable = false) {
  ReleaseFile file;
  file.path = std::move(path);
  file.bytes = std::move(bytes);
  file.executable = executable;
  return file;
}

inline Release release(const std::string& version, std::vector<ReleaseFile> files) {
  Release r;
  r.version = version;
  r.files = std::move(files);
  return r;
}

}  // namespace th::test
