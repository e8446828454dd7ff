// Stands in for the game: records its start and what it inherited into TH_RECORD_FILE. With
// "--exec-unclean PROGRAM..." it starts PROGRAM as a careless parent would: nice +3, SIGUSR1
// blocked, SIGUSR2 ignored, a descriptor open.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>

namespace {

int execUnclean(char** argv) {
  setpriority(PRIO_PROCESS, 0, getpriority(PRIO_PROCESS, 0) + 3);
  sigset_t usr1;
  sigemptyset(&usr1);
  sigaddset(&usr1, SIGUSR1);
  sigprocmask(SIG_BLOCK, &usr1, nullptr);
  signal(SIGUSR2, SIG_IGN);
  open("/dev/null", O_RDONLY);
  execv(argv[0], argv);
  return 127;
}

std::string inherited() {
  std::ostringstream out;
  out << "nice=" << getpriority(PRIO_PROCESS, 0) << "\n";
  std::error_code ignored;
  for (const auto& fd : std::filesystem::directory_iterator("/proc/self/fd", ignored)) {
    const std::string target = std::filesystem::read_symlink(fd.path(), ignored).string();
    if (!target.starts_with("/proc/"))
      out << "fd=" << fd.path().filename().string() << " " << target << "\n";
  }
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("SigBlk:") || line.starts_with("SigIgn:")) out << line << "\n";
  }
  return out.str();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2 && std::string_view(argv[1]) == "--exec-unclean") return execUnclean(argv + 2);
  const std::string before = inherited();  // before this program opens anything itself
  const char* recordFile = std::getenv("TH_RECORD_FILE");
  if (recordFile == nullptr) return 2;
  const std::string partial = std::string(recordFile) + ".partial";
  {
    std::ofstream out(partial, std::ios::binary);
    out << "pid=" << getpid() << "\ncwd=" << std::filesystem::current_path().string() << "\n";
    for (int i = 0; i < argc; ++i) out << "arg=" << argv[i] << "\n";
    out << before;
  }
  // Renamed into place so that a test polling for the file never reads half of it.
  return std::rename(partial.c_str(), recordFile) == 0 ? 0 : 3;
}
