// Stands in for the launcher handing over to the helper: copied into an install as
// "tarn-hollow-launcher", it forks, enters its folder and execs the helper with the child's own
// process ID, as the launcher does, then quits once the helper's log shows it waiting.
// Usage: fake_launcher STAGED

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const auto install = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  const std::string helper = (install / "tarn-hollow-update-helper").string();
  const std::string launcher = (install / "tarn-hollow-launcher").string();
  const pid_t pid = fork();
  if (pid < 0) return 1;
  if (pid == 0) {
    if (chdir(install.c_str()) != 0) _exit(126);
    const std::string ownPid = std::to_string(getpid());
    execl(helper.c_str(), "tarn-hollow-update-helper", "--wait-pid", ownPid.c_str(), "--replace",
          argv[1], "--target", launcher.c_str(), "--relaunch", launcher.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  const auto log = install / ".tarnhollow-update" / "helper.log";
  for (int i = 0; i < 1000; ++i) {
    std::stringstream text;
    text << std::ifstream(log).rdbuf();
    if (text.str().find("waiting for launcher") != std::string::npos) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return 0;
}
