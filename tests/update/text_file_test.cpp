#include "update/text_file.h"

#include <gtest/gtest.h>

#include "tests/support/temp_dir.h"

namespace th::test {
namespace {

using update::readTextFile;
using update::writeTextFile;

TEST(TextFile, RoundTripsEveryByte) {
  TempDir dir;
  std::string bytes("line one\r\nNUL\0here\n\xff\xfe", 22);
  for (int b = 0; b < 256; ++b) bytes.push_back(static_cast<char>(b));
  ASSERT_TRUE(writeTextFile(dir / "f.bin", bytes));
  EXPECT_EQ(readTextFile(dir / "f.bin"), bytes);
  EXPECT_EQ(readBytes(dir / "f.bin"), bytes);
}

TEST(TextFile, WriteCreatesMissingParentFolders) {
  TempDir dir;
  ASSERT_TRUE(writeTextFile(dir / "a" / "b" / "c.txt", "x"));
  EXPECT_EQ(readBytes(dir / "a" / "b" / "c.txt"), "x");
}

TEST(TextFile, WriteTruncatesALongerFile) {
  TempDir dir;
  writeBytes(dir / "f", "a much longer previous content");
  ASSERT_TRUE(writeTextFile(dir / "f", "new"));
  EXPECT_EQ(readBytes(dir / "f"), "new");
  ASSERT_TRUE(writeTextFile(dir / "f", ""));
  EXPECT_TRUE(std::filesystem::exists(dir / "f"));
  EXPECT_EQ(std::filesystem::file_size(dir / "f"), 0u);
}

TEST(TextFile, WriteUnderARegularFileFails) {
  TempDir dir;
  writeBytes(dir / "plain", "I am a file");
  EXPECT_FALSE(writeTextFile(dir / "plain" / "child.txt", "x"));
  EXPECT_EQ(readBytes(dir / "plain"), "I am a file");
}

TEST(TextFile, UnreadablePlacesReadAsEmpty) {
  TempDir dir;
  std::filesystem::create_directories(dir / "folder");
  EXPECT_EQ(readTextFile(dir / "missing"), "");
  EXPECT_EQ(readTextFile(dir / "folder"), "");
  EXPECT_EQ(readTextFile(""), "");
}

}  // namespace
}  // namespace th::test
