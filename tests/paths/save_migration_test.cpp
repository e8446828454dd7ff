#include <gtest/gtest.h>

#include "tests/paths/probe.h"

namespace th::test {
namespace {

// A scratch install with the probe in it and a user data folder chosen by XDG_DATA_HOME.
class SaveMigrationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    probe = installProbe(install);
    options.env["XDG_DATA_HOME"] = (scratch / "xdg").string();
  }
  void migrate() { ASSERT_EQ(runProbe(probe, options, true).exitCode, 0); }

  TempDir scratch;
  std::filesystem::path install = scratch / "game";
  std::filesystem::path legacy = install / "save";
  std::filesystem::path saves = scratch / "xdg" / "tarn-hollow" / "saves";
  std::filesystem::path probe;
  ProcessOptions options;
};

TEST_F(SaveMigrationTest, CopiesBothLegacyFilesAndKeepsTheOriginals) {
  writeBytes(legacy / "profile_v07.sav", std::string("profile\0bytes", 13));
  writeBytes(legacy / "settings_v01.cfg", "volume=3\r\n");
  writeBytes(legacy / "other.sav", "not a legacy save");
  migrate();
  EXPECT_EQ(readBytes(saves / "profile_v07.sav"), std::string("profile\0bytes", 13));
  EXPECT_EQ(readBytes(saves / "settings_v01.cfg"), "volume=3\r\n");
  EXPECT_FALSE(std::filesystem::exists(saves / "other.sav"));
  EXPECT_TRUE(std::filesystem::exists(legacy / "profile_v07.sav"));
  EXPECT_TRUE(std::filesystem::exists(legacy / "settings_v01.cfg"));
}

TEST_F(SaveMigrationTest, NeverOverwritesASaveAlreadyInTheUserFolder) {
  writeBytes(legacy / "profile_v07.sav", "old legacy profile");
  writeBytes(legacy / "settings_v01.cfg", "legacy settings");
  writeBytes(saves / "profile_v07.sav", "newer profile");
  migrate();
  EXPECT_EQ(readBytes(saves / "profile_v07.sav"), "newer profile");
  EXPECT_EQ(readBytes(saves / "settings_v01.cfg"), "legacy settings");
}

TEST_F(SaveMigrationTest, WithoutALegacyFolderOnlyCreatesTheSaveFolder) {
  migrate();
  EXPECT_TRUE(std::filesystem::is_directory(saves));
  EXPECT_TRUE(std::filesystem::is_empty(saves));
  EXPECT_FALSE(std::filesystem::exists(legacy));
}

TEST_F(SaveMigrationTest, ASecondRunCopiesNothing) {
  writeBytes(legacy / "profile_v07.sav", "first");
  migrate();
  writeBytes(legacy / "profile_v07.sav", "changed after the first run");
  writeBytes(saves / "settings_v01.cfg", "player's own settings");
  migrate();
  EXPECT_EQ(readBytes(saves / "profile_v07.sav"), "first");
  EXPECT_EQ(readBytes(saves / "settings_v01.cfg"), "player's own settings");
}

TEST_F(SaveMigrationTest, AnUnusableSaveFolderDoesNotStopTheProgram) {
  writeBytes(legacy / "profile_v07.sav", "profile");
  writeBytes(scratch / "xdg" / "tarn-hollow", "a file where the data folder should be");
  migrate();
  EXPECT_EQ(readBytes(legacy / "profile_v07.sav"), "profile");
}

}  // namespace
}  // namespace th::test
