// Versions, safe paths and text files: the engine's pure pieces. Hashing is checked against an
// independent digest by every test that installs a release.
#include <gtest/gtest.h>

#include "tests/support/files.h"
#include "update/safe_path.h"
#include "update/text_file.h"
#include "update/version.h"

namespace th::test {
namespace {

using namespace update;

TEST(CompareVersion, ReadsPartsWrapsAndIsAntisymmetric) {
  const struct {
    std::string a, b;
    int expected;
  } table[] = {
      {"", "0.0", 0},
      {"1.2", "1.2.0.0.0", 0},
      {"1.2.3.4.1", "1.2.3.4", 1},
      {"1.2", "1.10", -1},
      {"1..2", "1.0.2", 0},
      {"1.2.3-beta", "1.2.3", 0},
      {"v1.2", "0", 0},
      {"1.02", "1.2", 0},
      {"10", "9.9.9", 1},
      // Parts wrap modulo 2^32 into a signed int, then compare accordingly.
      {"4294967297", "1", 0},
      {"2147483648", "1", -1},
      {"99999999999999999999", "1661992959", 0},
  };
  for (const auto& row : table) {
    EXPECT_EQ(compareVersion(row.a, row.b), row.expected) << row.a << " vs " << row.b;
    EXPECT_EQ(compareVersion(row.b, row.a), -row.expected) << row.b << " vs " << row.a;
    EXPECT_EQ(compareVersion(row.a, row.a), 0) << row.a;
  }
}

TEST(SafeRelativePath, AcceptsOrdinaryPathsAndRejectsEscapesAndReservedPlaces) {
  for (const std::string& path :
       std::vector<std::string>{"data/empty.flag", "a/.../b", "a\\..\\b", "save",
                                "data/update_public_key.pem.bak", std::string(240, 'a')}) {
    EXPECT_TRUE(safeRelativePath(path)) << path;
  }
  for (const std::string& path :
       std::vector<std::string>{std::string(241, 'a'), std::string(), "/etc/passwd", "\\windows\\x",
                                "a:b", "a/../b", "x/.", "save//profile.sav", "userdata/x",
                                "data//update_public_key.pem", ".tarnhollow-update/stage-1/x"}) {
    EXPECT_FALSE(safeRelativePath(path)) << path;
  }
}

TEST(TextFile, RoundTripsBytesCreatesParentsAndTruncates) {
  TempDir dir;
  const std::string bytes("line one\r\nNUL\0here\n\xff", 20);
  ASSERT_TRUE(writeTextFile(dir / "a" / "b" / "f.bin", bytes));
  EXPECT_EQ(readBytes(dir / "a" / "b" / "f.bin"), bytes);
  EXPECT_EQ(readTextFile(dir / "a" / "b" / "f.bin"), bytes);
  ASSERT_TRUE(writeTextFile(dir / "a" / "b" / "f.bin", "new"));
  EXPECT_EQ(readBytes(dir / "a" / "b" / "f.bin"), "new");
  EXPECT_FALSE(writeTextFile(dir / "a" / "b" / "f.bin" / "child.txt", "x"));
  EXPECT_EQ(readTextFile(dir / "missing"), "");
}

}  // namespace
}  // namespace th::test
