#include "tests/support/temp_dir.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <sstream>

namespace th::test {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "th-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed for " << pattern;
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void writeBytes(const std::filesystem::path& path, const std::string& bytes) {
  std::error_code ignored;
  std::filesystem::create_directories(path.parent_path(), ignored);
  if (!(std::ofstream(path, std::ios::binary) << bytes))
    ADD_FAILURE() << "could not write " << path;
}

std::string readBytes(const std::filesystem::path& path) {
  std::ostringstream bytes;
  bytes << std::ifstream(path, std::ios::binary).rdbuf();
  return bytes.str();
}

unsigned fileMode(const std::filesystem::path& path) {
  std::error_code ignored;
  return static_cast<unsigned>(std::filesystem::status(path, ignored).permissions()) & 07777u;
}

}  // namespace th::test
