#include "update/safe_path.h"

#include <gtest/gtest.h>

#include <string>

namespace th::test {
namespace {

using update::safeRelativePath;

TEST(SafeRelativePath, AcceptsOrdinaryPathsAndTheNarrowReadingOfReservedNames) {
  const char* accepted[] = {"a/.../b",
                            "a/..b",
                            "a\\..\\b",
                            "Save/x",
                            "saves/x",
                            "save",
                            "userdata",
                            ".tarnhollow-update",
                            "data/update_public_key.pem/",
                            "data/update_public_key.pem.bak",
                            "a//b/",
                            "tarn-hollow",
                            "data/empty.flag"};
  for (const char* path : accepted) EXPECT_TRUE(safeRelativePath(path)) << path;
  EXPECT_TRUE(safeRelativePath(std::string(240, 'a')));
  EXPECT_TRUE(safeRelativePath(std::string(119, 'a') + "/" + std::string(120, 'b')));
}

TEST(SafeRelativePath, RejectsEscapesColonsDotElementsAndReservedPlaces) {
  const char* rejected[] = {"",
                            "/etc/passwd",
                            "\\windows\\x",
                            "C:/x",
                            "a:b",
                            "a/../b",
                            "../x",
                            "./x",
                            "x/.",
                            ".",
                            "..",
                            "save/profile.sav",
                            "save//profile.sav",
                            "save/",
                            "userdata/x",
                            "data/update_public_key.pem",
                            "data//update_public_key.pem",
                            ".tarnhollow-update/stage-1/x"};
  for (const char* path : rejected) EXPECT_FALSE(safeRelativePath(path)) << path;
  EXPECT_FALSE(safeRelativePath(std::string(241, 'a')));
}

}  // namespace
}  // namespace th::test
