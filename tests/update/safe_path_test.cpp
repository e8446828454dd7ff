#include "update/safe_path.h"

#include <gtest/gtest.h>

#include <string>

namespace th::test {
namespace {

using update::safeRelativePath;

TEST(SafeRelativePath, AcceptsAndRejectsAsListed) {
  const struct {
    std::string path;
    bool accepted;
  } table[] = {
      {"", false},
      {std::string(240, 'a'), true},
      {std::string(241, 'a'), false},
      {std::string(119, 'a') + "/" + std::string(120, 'b'), true},
      {"/etc/passwd", false},
      {"\\windows\\x", false},
      {"C:/x", false},
      {"a:b", false},
      {"a/../b", false},
      {"../x", false},
      {"./x", false},
      {"x/.", false},
      {".", false},
      {"..", false},
      {"a/.../b", true},
      {"a/..b", true},
      {"a\\..\\b", true},
      {"save/profile.sav", false},
      {"save//profile.sav", false},
      {"userdata/x", false},
      {"Save/x", true},
      {"saves/x", true},
      {"save", true},
      {"userdata", true},
      {".tarnhollow-update", true},
      {"save/", false},
      {"data/update_public_key.pem", false},
      {"data//update_public_key.pem", false},
      {"data/update_public_key.pem/", true},
      {"data/update_public_key.pem.bak", true},
      {".tarnhollow-update/stage-1/x", false},
      {"a//b/", true},
      {"tarn-hollow", true},
      {"data/empty.flag", true},
  };
  for (const auto& row : table) {
    EXPECT_EQ(safeRelativePath(row.path), row.accepted) << row.path;
  }
}

}  // namespace
}  // namespace th::test
