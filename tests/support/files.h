#pragma once
// Scratch folders, file bytes, digests and folder snapshots, all independent of the code under
// test.

#include <filesystem>
#include <map>
#include <string>
#include <string_view>

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
// SHA-256 of `bytes` as 64 lower-case hex digits, computed independently of the engine.
std::string sha256Hex(std::string_view bytes);
std::string lowerHex(const unsigned char* bytes, size_t length);

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
