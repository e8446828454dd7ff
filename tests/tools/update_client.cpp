// One player's launcher start: the engine prints the version the marker names after the update
// (as the job reads it back), or its error, then a launcher it staged, which the update helper,
// in this process's place, swaps in.
#include <unistd.h>

#include <iostream>

#include "launcher/version_marker.h"
#include "update/updater.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  th::update::Updater updater(argv[1]);
  updater.server = argv[2];
  th::update::UpdatePlan plan;
  std::string error;
  std::filesystem::path staged;
  const bool updated =
      updater.check("stable", plan, error) && updater.apply(plan, {}, error, &staged);
  std::cout << (updated ? localVersion(argv[1]) : error) << std::endl;
  if (!updated || staged.empty()) return updated ? 0 : 1;
  std::cout << staged.string() << std::endl;
  const std::string self = std::to_string(getpid());
  const std::string launcher = (std::filesystem::path(argv[1]) / "tarn-hollow-launcher").string();
  execl(TH_UPDATE_HELPER, "tarn-hollow-update-helper", "--wait-pid", self.c_str(), "--replace",
        staged.c_str(), "--target", launcher.c_str(), "--relaunch", launcher.c_str(), nullptr);
  return 127;
}
