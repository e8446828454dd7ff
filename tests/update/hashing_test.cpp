#include <gtest/gtest.h>

#include <string>

#include "tests/support/process.h"
#include "tests/support/temp_dir.h"
#include "update/signature.h"

namespace th::test {
namespace {

using update::sha256Bytes;
using update::sha256File;

// The digest as the system's sha256sum prints it, independent of the code under test.
std::string sha256sum(const std::filesystem::path& file) {
  const ProcessResult result = runProcess({"/usr/bin/sha256sum", "-b", file.string()});
  EXPECT_EQ(result.exitCode, 0) << result.err;
  return result.out.substr(0, 64);
}

TEST(Sha256Bytes, MatchesKnownVectors) {
  EXPECT_EQ(sha256Bytes(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(sha256Bytes("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_NE(sha256Bytes(std::string("a\0b", 3)), sha256Bytes("a"));
}

TEST(Sha256File, MatchesSha256sumAcrossTheChunkBoundary) {
  TempDir dir;
  for (size_t size : {0, 1, 65535, 65536, 65537, 3 * 65536 + 7}) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 131 + i / 977) & 0xff);
    const auto file = dir / ("f" + std::to_string(size));
    writeBytes(file, bytes);
    EXPECT_EQ(sha256File(file), sha256sum(file)) << size;
  }
  EXPECT_EQ(sha256File(dir / "f0"),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(Sha256File, UnreadablePlacesYieldNoDigest) {
  TempDir dir;
  std::filesystem::create_directories(dir / "folder");
  EXPECT_EQ(sha256File(dir / "missing"), "");
  EXPECT_EQ(sha256File(dir / "folder"), "");
  EXPECT_EQ(sha256File(""), "");
}

}  // namespace
}  // namespace th::test
