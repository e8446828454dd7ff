// The data folders and the save migration, seen from a probe program copied into a scratch
// install folder, so that the environment and /proc/self/exe are real.
#include <gtest/gtest.h>

#include "tests/support/system.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;

struct Install {
  TempDir scratch;
  fs::path root = scratch / "game";
  fs::path legacy = root / "save";
  fs::path saves = scratch / "xdg" / "tarn-hollow" / "saves";

  // The probe's output: install folder, user data folder and save folder, one per line.
  std::string probe(const std::map<std::string, std::optional<std::string>>& env,
                    bool migrate = false) {
    fs::create_directories(root);
    fs::copy_file(TH_PATHS_PROBE, root / "probe", fs::copy_options::overwrite_existing);
    const ProcessResult r =
        runProcess({(root / "probe").string(), migrate ? "--migrate" : ""}, {env, {}});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    return r.out;
  }
  void migrate() { probe({{"XDG_DATA_HOME", (scratch / "xdg").string()}}, true); }
};

TEST(DataDirs, FollowTheEnvironmentAndAreNotCreated) {
  const struct {
    std::optional<std::string> xdg, home;
    std::string data;  // "<install>" stands for the install folder
  } table[] = {
      {"/nonexistent/xdg", "/nonexistent/home", "/nonexistent/xdg/tarn-hollow"},
      {"", "/nonexistent/home", "/nonexistent/home/.local/share/tarn-hollow"},
      {std::nullopt, "/nonexistent/home", "/nonexistent/home/.local/share/tarn-hollow"},
      {std::nullopt, std::nullopt, "<install>/userdata"},
  };
  for (const auto& row : table) {
    Install install;
    const std::string data =
        row.data.starts_with("<install>") ? install.root.string() + row.data.substr(9) : row.data;
    EXPECT_EQ(install.probe({{"XDG_DATA_HOME", row.xdg}, {"HOME", row.home}}),
              install.root.string() + "\n" + data + "\n" + data + "/saves\n");
    EXPECT_FALSE(fs::exists(data)) << data;
  }
}

TEST(SaveMigration, CopiesBothLegacyFilesOnceKeepingNewerSavesAndNeedsNoLegacyFolder) {
  Install install;
  writeBytes(install.legacy / "profile_v07.sav", std::string("profile\0bytes", 13));
  writeBytes(install.legacy / "settings_v01.cfg", "legacy settings");
  writeBytes(install.saves / "settings_v01.cfg", "newer settings");
  install.migrate();
  EXPECT_EQ(readBytes(install.saves / "profile_v07.sav"), std::string("profile\0bytes", 13));
  EXPECT_EQ(readBytes(install.saves / "settings_v01.cfg"), "newer settings");
  writeBytes(install.legacy / "profile_v07.sav", "changed after the first run");
  install.migrate();
  EXPECT_EQ(readBytes(install.saves / "profile_v07.sav"), std::string("profile\0bytes", 13));

  // An unusable data folder does not stop the program; without a legacy folder only the save
  // folder is made.
  fs::remove_all(install.scratch / "xdg");
  writeBytes(install.scratch / "xdg" / "tarn-hollow", "a file where the data folder should be");
  install.migrate();
  fs::remove_all(install.scratch / "xdg");
  fs::remove_all(install.legacy);
  install.migrate();
  EXPECT_TRUE(fs::is_directory(install.saves));
  EXPECT_TRUE(fs::is_empty(install.saves));
}

}  // namespace
}  // namespace th::test
