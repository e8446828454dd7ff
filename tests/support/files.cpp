#include "tests/support/files.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
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

std::string sha256Hex(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
  return lowerHex(digest, length);
}

std::string lowerHex(const unsigned char* bytes, size_t length) {
  std::string text;
  for (size_t i = 0; i < length; ++i)
    (text += "0123456789abcdef"[bytes[i] >> 4]) += "0123456789abcdef"[bytes[i] & 15];
  return text;
}

namespace fs = std::filesystem;

FolderSnapshot snapshotFolder(const fs::path& folder) {
  FolderSnapshot snapshot;
  std::error_code error;
  for (fs::recursive_directory_iterator it(folder, error), end; !error && it != end;
       it.increment(error)) {
    const fs::file_status status = it->symlink_status(error);
    const std::string mode = std::to_string(static_cast<unsigned>(status.permissions()) & 07777u);
    std::string& entry = snapshot[it->path().lexically_relative(folder).generic_string()];
    if (status.type() == fs::file_type::regular) {
      entry = "file " + mode + " " + sha256Hex(readBytes(it->path()));
    } else if (status.type() == fs::file_type::symlink) {
      entry = "symlink " + mode + " " + fs::read_symlink(it->path(), error).string();
    } else {
      entry = (status.type() == fs::file_type::directory ? "folder " : "other ") + mode;
    }
  }
  return snapshot;
}

FolderSnapshot installSnapshot(const fs::path& installDir) {
  FolderSnapshot snapshot = snapshotFolder(installDir);
  std::erase_if(snapshot, [](const auto& e) { return e.first.starts_with(".tarnhollow-update"); });
  return snapshot;
}

std::string snapshotDiff(const FolderSnapshot& before, const FolderSnapshot& after) {
  std::string diff;
  for (const auto& [path, entry] : before) {
    const auto found = after.find(path);
    if (found == after.end())
      diff += "- " + path + " (" + entry + ")\n";
    else if (found->second != entry)
      diff += "~ " + path + ": " + entry + " -> " + found->second + "\n";
  }
  for (const auto& [path, entry] : after) {
    if (!before.contains(path)) diff += "+ " + path + " (" + entry + ")\n";
  }
  return diff;
}

}  // namespace th::test
