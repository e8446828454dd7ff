// Prints the data folders, one per line, and with "--migrate" runs the legacy save migration
// first. Run from a copy placed in a test's install folder so /proc/self/exe points there.
#include <iostream>
#include <string>

#include "paths/data_dirs.h"
#include "paths/save_migration.h"

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "--migrate") th::migrateLegacySaveFiles();
  std::cout << th::installDir().string() << "\n"
            << th::userDataDir().string() << "\n"
            << th::userSaveDir().string() << "\n";
}
