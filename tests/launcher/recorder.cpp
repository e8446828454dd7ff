// Stands in for the game: records its start and what it inherited into TH_RECORD_FILE (after
// TH_RECORD_AFTER_MS), or as NAME beside NAME.real into TH_RECORD_FILE.NAME, then becomes that.
// "--exec-unclean PROGRAM..." starts PROGRAM as a careless parent on a kernel without close_range
// would: nice +3, SIGUSR1 blocked, SIGHUP and SIGUSR2 ignored, descriptors open.
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string_view>

namespace {

// What kernels before 5.11 answer.
void refuseCloseRange() {
  sock_filter filter[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                          BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_close_range, 0, 1),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
                          BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
  const sock_fprog program{std::size(filter), filter};
  prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
}

int execUnclean(char** argv) {
  setpriority(PRIO_PROCESS, 0, getpriority(PRIO_PROCESS, 0) + 3);
  sigset_t usr1;
  sigemptyset(&usr1);
  sigaddset(&usr1, SIGUSR1);
  sigprocmask(SIG_BLOCK, &usr1, nullptr);
  signal(SIGHUP, SIG_IGN);
  signal(SIGUSR2, SIG_IGN);
  fcntl(open("/dev/null", O_RDONLY), F_DUPFD, 100);  // and a number of three digits
  refuseCloseRange();
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
  if (const char* after = std::getenv("TH_RECORD_AFTER_MS")) usleep(std::atoi(after) * 1000);
  const std::string real = std::string(argv[0]) + ".real";
  const bool standIn = access(real.c_str(), X_OK) == 0;
  const std::string record = recordFile + (standIn ? "." + std::string(argv[0]) : "");
  const std::string partial = record + ".partial";
  {
    std::ofstream out(partial, std::ios::binary);
    out << "pid=" << getpid() << "\ncwd=" << std::filesystem::current_path().string() << "\n";
    for (int i = 0; i < argc; ++i) out << "arg=" << argv[i] << "\n";
    out << before;
  }
  // Renamed into place so that a test polling for the file never reads half of it.
  if (std::rename(partial.c_str(), record.c_str()) != 0) return 3;
  if (standIn) execv(real.c_str(), argv);
  return standIn ? 127 : 0;
}
