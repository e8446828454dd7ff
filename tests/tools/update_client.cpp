// One player's engine as a process of its own: prints the version it installed, or its error,
// then the launcher it staged for the update helper, if any.
#include <iostream>

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
  std::cout << (updated ? plan.manifest.version : error) << '\n';
  if (updated && !staged.empty()) std::cout << staged.string() << '\n';
  return updated ? 0 : 1;
}
