#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tests/paths/probe.h"

namespace th::test {
namespace {

struct EnvCase {
  const char* name;
  std::optional<std::string> xdg;
  std::optional<std::string> home;
  std::string expectedData;  // "<install>" stands for the probe's install folder
};

class DataDirsTest : public ::testing::TestWithParam<EnvCase> {};

TEST_P(DataDirsTest, FollowsTheEnvironmentAndCreatesNothing) {
  const EnvCase& c = GetParam();
  TempDir scratch;
  const auto install = scratch / "game";
  const auto probe = installProbe(install);

  ProcessOptions options;
  options.env["XDG_DATA_HOME"] = c.xdg;
  options.env["HOME"] = c.home;
  ProbeResult r = runProbe(probe, options);

  std::string expected = c.expectedData;
  if (expected.rfind("<install>", 0) == 0) expected = install.string() + expected.substr(9);
  ASSERT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.installDir, install.string());
  EXPECT_EQ(r.userDataDir, expected);
  EXPECT_EQ(r.userSaveDir, expected + "/saves");
  EXPECT_FALSE(std::filesystem::exists(install / "userdata"));
  EXPECT_FALSE(std::filesystem::exists(r.userDataDir));
}

INSTANTIATE_TEST_SUITE_P(
    Environments, DataDirsTest,
    ::testing::Values(
        EnvCase{"XdgSet", "/nonexistent/xdg", "/nonexistent/home", "/nonexistent/xdg/tarn-hollow"},
        EnvCase{"XdgRelative", "rel/xdg", std::nullopt, "rel/xdg/tarn-hollow"},
        EnvCase{"XdgEmpty", "", "/nonexistent/home", "/nonexistent/home/.local/share/tarn-hollow"},
        EnvCase{"HomeOnly", std::nullopt, "/nonexistent/home",
                "/nonexistent/home/.local/share/tarn-hollow"},
        EnvCase{"HomeEmpty", std::nullopt, "", "<install>/userdata"},
        EnvCase{"Neither", std::nullopt, std::nullopt, "<install>/userdata"}),
    [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace th::test
