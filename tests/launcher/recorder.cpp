// Stands in for the game: records how it was started (process ID, working directory, every
// argument) into the file named by TH_RECORD_FILE, one item per line.
#include <unistd.h>

#include <filesystem>
#include <fstream>

int main(int argc, char** argv) {
  const char* recordFile = std::getenv("TH_RECORD_FILE");
  if (recordFile == nullptr) return 2;
  const std::string partial = std::string(recordFile) + ".partial";
  {
    std::ofstream out(partial, std::ios::binary);
    out << "pid=" << getpid() << "\ncwd=" << std::filesystem::current_path().string() << "\n";
    for (int i = 0; i < argc; ++i) out << "arg=" << argv[i] << "\n";
  }
  // Renamed into place so that a test polling for the file never reads half of it.
  return std::rename(partial.c_str(), recordFile) == 0 ? 0 : 3;
}
