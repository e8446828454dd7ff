// SIGKILL at chosen system calls and at random ones, of the engine during an apply and of the
// update helper during its swap, each followed by what the next launcher start does (check,
// apply, hand-off to the helper): the install must end equal to the release, byte for byte and
// mode for mode, with its marker and with the player's files untouched. The children run under
// ptrace, which stops them at every system call's entry and exit without any hook in the product.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <random>
#include <set>

#include "tests/support/folder_snapshot.h"
#include "tests/support/nginx_server.h"
#include "tests/support/release_builder.h"
#include "tests/support/temp_dir.h"
#include "update/updater.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;

struct Stop {
  pid_t pid;
  user_regs_struct regs;
  bool returned;  // the exit of the call, not its entry
};
using KillWhen = std::function<bool(const Stop&)>;
constexpr int kKilled = -1;

// Runs `body` in a traced child and SIGKILLs it at the first stop where `killWhen` holds.
// Returns the child's exit status, or kKilled.
int runKilledWhen(const std::function<void()>& body, const KillWhen& killWhen) {
  const pid_t pid = fork();
  if (pid == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    body();
    _exit(0);
  }
  int status = 0, signal = 0;
  waitpid(pid, &status, 0);
  const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
  ptrace(PTRACE_SETOPTIONS, pid, nullptr, reinterpret_cast<void*>(options));
  for (bool returned = false;; signal = 0) {
    ptrace(PTRACE_SYSCALL, pid, nullptr, reinterpret_cast<void*>(static_cast<long>(signal)));
    waitpid(pid, &status, 0);
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    if (WSTOPSIG(status) != (SIGTRAP | 0x80)) {
      if (status >> 16 == 0) signal = WSTOPSIG(status);  // a signal for the child, not an event
      continue;
    }
    Stop stop{pid, {}, returned};
    returned = !returned;
    ptrace(PTRACE_GETREGS, pid, nullptr, &stop.regs);
    if (!killWhen(stop)) continue;
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return kKilled;
  }
}

const KillWhen kNever = [](const Stop&) { return false; };
KillWhen atStop(int n) {
  return [n](const Stop&) mutable { return n-- == 0; };
}
bool isRename(const Stop& stop) {
  const auto call = stop.regs.orig_rax;
  return stop.returned && (call == SYS_rename || call == SYS_renameat || call == SYS_renameat2);
}
// The calls after which the files on disk can differ: killing right after each of them, and
// before the first, leaves every state a kill at any other moment can leave.
bool changedFiles(const Stop& stop) {
  static const std::set<unsigned long long> calls = {
      SYS_write,   SYS_link,  SYS_linkat,   SYS_unlink,          SYS_unlinkat, SYS_rmdir,
      SYS_mkdir,   SYS_chmod, SYS_fchmod,   SYS_fchmodat,        SYS_fsync,    SYS_ftruncate,
      SYS_mkdirat, SYS_clone, SYS_sendfile, SYS_copy_file_range, SYS_fdatasync};
  const auto call = stop.regs.orig_rax;
  return isRename(stop) || (stop.returned && (calls.contains(call) ||
                                              (call == SYS_openat && (stop.regs.rdx & O_CREAT))));
}
KillWhen afterNth(bool (*which)(const Stop&), int n) {
  return [which, n](const Stop& stop) mutable { return which(stop) && n-- == 0; };
}
std::string pathAt(pid_t pid, unsigned long long address) {
  std::string path;
  for (;; address += sizeof(long)) {
    const long word = ptrace(PTRACE_PEEKDATA, pid, address, nullptr);
    const std::string bytes(reinterpret_cast<const char*>(&word), sizeof word);
    path += bytes.substr(0, bytes.find('\0'));
    if (bytes.find('\0') != std::string::npos || path.size() > 4096) return path;
  }
}
// The marker is the one file the engine opens for writing (O_TRUNC) under the name game_version.
bool opensMarker(const Stop& stop) {
  return !stop.returned && stop.regs.orig_rax == SYS_openat && (stop.regs.rdx & O_TRUNC) != 0 &&
         pathAt(stop.pid, stop.regs.rsi).ends_with("/game_version");
}

// 2.0.0 changes both executables and a pack, keeps a pack and adds a map in a new folder.
Release release(const std::string& version) {
  Release release;
  release.version = version;
  release.files = {{"tarn-hollow", "#!/bin/sh\necho game " + version + "\n", true},
                   {"tarn-hollow-launcher", "#!/bin/sh\n# launcher " + version + "\n", true},
                   {"data/a.pak", std::string(300000, version[0])},
                   {"data/b.pak", "the same in every release"},
                   {"data/maps/forest.map", version}};
  if (version == "1.0.0") release.files.pop_back();
  return release;
}

// The old install (1.0.0) with the player's files, or the one expected after the update.
void layOut(const fs::path& root, const Release& release, const std::string& server) {
  prepareInstall(root, server, release.version + "\n");
  for (const ReleaseFile& file : release.files) {
    writeBytes(root / file.path, file.bytes);
    if (file.executable) fs::permissions(root / file.path, fs::perms(0755));
  }
  writeBytes(root / "save" / "slot1.sav", "the player's progress");
  writeBytes(root / "userdata" / "settings.cfg", "volume=3");
}

std::function<void()> helperRun(const fs::path& root, const fs::path& staged) {
  return [launcher = (root / "tarn-hollow-launcher").string(), staged = staged.string()] {
    const std::string self = std::to_string(getpid());  // not the launcher: no wait
    execl(TH_UPDATE_HELPER, "tarn-hollow-update-helper", "--wait-pid", self.c_str(), "--replace",
          staged.c_str(), "--target", launcher.c_str(), "--relaunch", launcher.c_str(), nullptr);
  };
}

class CrashSafety : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
    publishRelease(www.path(), release("2.0.0"));
    layOut(expected.path(), release("2.0.0"), nginx.url());
  }

  // Installs are kept to the end: a relaunched launcher may still be starting from one.
  fs::path oldInstall() {
    const fs::path root = installs.emplace_back(std::make_unique<TempDir>())->path();
    layOut(root, release("1.0.0"), nginx.url());
    return root;
  }

  update::Updater updaterOf(const fs::path& root, update::UpdatePlan& plan) const {
    update::Updater updater(root);
    updater.server = nginx.url();
    std::string error;
    EXPECT_TRUE(updater.check("stable", plan, error)) << error;
    return updater;
  }

  // The apply in a traced child, with its plan made here.
  std::function<void()> applyRun(const fs::path& root) const {
    update::UpdatePlan plan;
    return [updater = updaterOf(root, plan), plan]() mutable {
      std::string error;
      fs::path staged;
      _exit(updater.apply(plan, nullptr, error, &staged) ? 0 : 1);
    };
  }

  fs::path applyHere(const fs::path& root) const {
    update::UpdatePlan plan;
    std::string error;
    fs::path staged;
    EXPECT_TRUE(updaterOf(root, plan).apply(plan, nullptr, error, &staged)) << error;
    return staged;
  }

  // What the next launcher start does; true when it handed a launcher to the helper.
  bool nextStart(const fs::path& root) const {
    const fs::path staged = applyHere(root);
    if (!staged.empty()) {
      EXPECT_EQ(runKilledWhen(helperRun(root, staged), kNever), 0);
    }
    EXPECT_EQ(snapshotDiff(installSnapshot(expected.path()), installSnapshot(root)), "");
    return !staged.empty();
  }

  TempDir www, expected;
  std::vector<std::unique_ptr<TempDir>> installs;
  NginxServer nginx{www.path()};
};

TEST_F(CrashSafety, AnApplyKilledAfterAnyRenameBeforeTheMarkerOrAtRandomIsCompletedNextStart) {
  int stops = 0, renames = 0;
  const KillWhen count = [&](const Stop& stop) {
    renames += isRename(stop) ? 1 : 0;
    ++stops;
    return false;
  };
  ASSERT_EQ(runKilledWhen(applyRun(oldInstall()), count), 0);
  // {what, when, whether that moment surely comes}
  std::vector<std::tuple<std::string, KillWhen, bool>> kills = {
      {"before the marker", opensMarker, true}};
  for (int k = 0; k < renames; ++k) {
    kills.emplace_back("after rename " + std::to_string(k), afterNth(isRename, k), true);
  }
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  for (int i = 0; i < 40; ++i) {
    const int stop = static_cast<int>(random() % stops);
    kills.emplace_back("at stop " + std::to_string(stop) + ", seed " + std::to_string(seed),
                       atStop(stop), false);
  }
  for (const auto& [what, when, sure] : kills) {
    SCOPED_TRACE(what);
    const auto install = oldInstall();
    const int status = runKilledWhen(applyRun(install), when);
    EXPECT_TRUE(status == kKilled || !sure) << status;
    for (const char* executable : {"tarn-hollow", "tarn-hollow-launcher"}) {
      const fs::path file = install / executable;
      EXPECT_TRUE(!fs::exists(file) || fileMode(file) == 0755u) << executable;
    }
    nextStart(install);
  }
}

TEST_F(CrashSafety, AHelperKilledAtAnyStepLeavesALauncherAndTheNextStartHandsItOverAgain) {
  for (int change = -1;; ++change) {
    SCOPED_TRACE("helper killed after file system change " + std::to_string(change));
    const auto install = oldInstall();
    const fs::path launcher = install / "tarn-hollow-launcher";
    const std::string old = readBytes(launcher);
    const fs::path staged = applyHere(install);
    if (runKilledWhen(helperRun(install, staged),
                      change < 0 ? atStop(0) : afterNth(changedFiles, change)) != kKilled)
      break;
    EXPECT_EQ(fileMode(launcher), 0755u);
    EXPECT_EQ(runProcess({launcher.string()}).exitCode, 0);
    EXPECT_EQ(nextStart(install), readBytes(launcher) == old);
  }
}

}  // namespace
}  // namespace th::test
