#pragma once
// Runs a copy of the paths probe from inside a scratch install folder.

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace th::test {

struct ProbeResult {
  std::string installDir, userDataDir, userSaveDir;
  int exitCode = -1;
};

inline std::filesystem::path installProbe(const std::filesystem::path& installDir) {
  std::filesystem::create_directories(installDir);
  const auto probe = installDir / "probe";
  std::filesystem::copy_file(TH_PATHS_PROBE, probe,
                             std::filesystem::copy_options::overwrite_existing);
  return probe;
}

inline ProbeResult runProbe(const std::filesystem::path& probe, const ProcessOptions& options,
                            bool migrate = false) {
  std::vector<std::string> argv{probe.string()};
  if (migrate) argv.push_back("--migrate");
  ProcessResult r = runProcess(argv, options);
  ProbeResult result;
  result.exitCode = r.exitCode;
  std::istringstream lines(r.out);
  std::getline(lines, result.installDir);
  std::getline(lines, result.userDataDir);
  std::getline(lines, result.userSaveDir);
  return result;
}

}  // namespace th::test
