#include "tools/publish/release/package_launcher.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "update/file_descriptor.h"
#include "update/platform.h"
#include "update/signature.h"

extern char** environ;

namespace th::publish {
namespace {

// Owns the list of what the child does with its descriptors before tar starts.
class SpawnActions {
 public:
  SpawnActions() { posix_spawn_file_actions_init(&actions_); }
  ~SpawnActions() { posix_spawn_file_actions_destroy(&actions_); }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;
  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

// tar writes the member to `out`; its own messages are not the tool's, and it reads nothing else.
bool startTar(const std::filesystem::path& package, int out, pid_t& pid) {
  const std::string member = "*/" + update::launcherBinaryName();
  const char* const argv[] = {
      "tar",          "-xzOf", package.c_str(), "--wildcards", "--no-wildcards-match-slash",
      member.c_str(), nullptr};
  SpawnActions actions;
  posix_spawn_file_actions_adddup2(actions.get(), out, STDOUT_FILENO);
  posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(actions.get(), STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  return posix_spawn(&pid, "/bin/tar", actions.get(), nullptr, const_cast<char* const*>(argv),
                     environ) == 0;
}

std::string readAll(int fd) {
  std::string bytes;
  char buffer[1 << 16];
  for (;;) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return bytes;
    bytes.append(buffer, static_cast<std::size_t>(got));
  }
}

bool exitedCleanly(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return false;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The member's bytes, read through a pipe from tar.
bool readWithTar(const std::filesystem::path& package, std::string& bytes, std::string& error) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    error = package.string() + ": no pipe to read the game package through";
    return false;
  }
  const update::FileDescriptor reading(ends[0]);
  update::FileDescriptor writing(ends[1]);
  pid_t tar = 0;
  if (!startTar(package, writing.get(), tar)) {
    error = package.string() + ": /bin/tar cannot be started to read the game package";
    return false;
  }
  writing.close();  // else the read below never sees the end of tar's output
  bytes = readAll(reading.get());
  if (!exitedCleanly(tar)) {
    error = package.string() + ": tar finds no " + update::launcherBinaryName() +
            " in the top folder of this game package (a .tar.gz)";
    return false;
  }
  return true;
}

}  // namespace

bool packagedLauncherDigest(const std::filesystem::path& package, std::string& digest,
                            std::string& error) {
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(package, ignored)) {
    error = package.string() + ": the game package cannot be read";
    return false;
  }
  std::string launcher;
  if (!readWithTar(package, launcher, error)) return false;
  digest = update::sha256Bytes(launcher);
  return true;
}

}  // namespace th::publish
