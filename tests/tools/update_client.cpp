// One player's engine as a process of its own: prints the version it installed, or its error.
#include <iostream>

#include "update/updater.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  th::update::Updater updater(argv[1]);
  updater.server = argv[2];
  th::update::UpdatePlan plan;
  std::string error;
  const bool updated =
      updater.check("stable", plan, error) && updater.apply(plan, {}, error, nullptr);
  std::cout << (updated ? plan.manifest.version : error) << '\n';
  return updated ? 0 : 1;
}
