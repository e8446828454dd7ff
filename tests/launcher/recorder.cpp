// Stands in for the game and for the update helper: records how it was started (process ID,
// working directory, every argument) into the file named by TH_RECORD_FILE, one item per line.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

int main(int argc, char** argv) {
  const char* recordFile = std::getenv("TH_RECORD_FILE");
  if (recordFile == nullptr) return 2;
  const std::string partial = std::string(recordFile) + ".partial";
  {
    std::ofstream out(partial, std::ios::binary);
    out << "pid=" << getpid() << "\n";
    out << "cwd=" << std::filesystem::current_path().string() << "\n";
    for (int i = 0; i < argc; ++i) out << "arg=" << argv[i] << "\n";
    if (!out) return 3;
  }
  // Renamed into place so that a test polling for the file never reads half of it.
  return std::rename(partial.c_str(), recordFile) == 0 ? 0 : 4;
}
