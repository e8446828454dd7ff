#pragma once

#include <filesystem>
#include <string>

namespace th::test {

// A fresh folder under the system's temporary folder, removed with everything in it at scope end.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::filesystem::path& relative) const {
    return path_ / relative;
  }

 private:
  std::filesystem::path path_;
};

// Test-side file access that does not go through the code under test.
void writeBytes(const std::filesystem::path& path, const std::string& bytes);
std::string readBytes(const std::filesystem::path& path);
// Permission bits as in `ls -l` octal (0755), following symlinks.
unsigned fileMode(const std::filesystem::path& path);

}  // namespace th::test
