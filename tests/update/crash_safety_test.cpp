// The engine and the update helper SIGKILLed (under ptrace, no hook in the product), then rerun.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <set>

#include "tests/support/files.h"
#include "tests/support/update_server.h"
#include "update/updater.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;

using KillWhen = std::function<bool(const user_regs_struct&)>;
constexpr int kKilled = -1;

// Runs `body` in a traced child, SIGKILLed right after the first system call for whose registers
// `killWhen` holds; returns its exit status or kKilled.
int runKilledWhen(const std::function<void()>& body, const KillWhen& killWhen) {
  const pid_t pid = fork();
  if (pid == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    body();
    _exit(127);
  }
  int status = 0, signal = 0;
  waitpid(pid, &status, 0);
  const long options = PTRACE_O_TRACESYSGOOD | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL;
  ptrace(PTRACE_SETOPTIONS, pid, nullptr, reinterpret_cast<void*>(options));
  for (bool returned = false;; signal = 0) {
    ptrace(PTRACE_SYSCALL, pid, nullptr, reinterpret_cast<void*>(static_cast<long>(signal)));
    waitpid(pid, &status, 0);
    if (WIFEXITED(status) || WIFSIGNALED(status)) return WEXITSTATUS(status) | WTERMSIG(status);
    const bool callStop = WSTOPSIG(status) == (SIGTRAP | 0x80);
    if (!callStop && status >> 16 == 0) signal = WSTOPSIG(status);  // for the child: pass it on
    if (!callStop) continue;
    user_regs_struct call{};
    ptrace(PTRACE_GETREGS, pid, nullptr, &call);
    returned = !returned;  // the stops alternate between a call's entry and its exit
    if (!returned || !killWhen(call)) continue;
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return kKilled;
  }
}

// The calls after which names, modes or what is on disk can differ: a kill right after each of
// them leaves every install a kill at any moment can leave, except files half written.
bool changedFiles(const user_regs_struct& call) {
  static const std::set<unsigned long long> calls = {
      SYS_rename,   SYS_renameat, SYS_renameat2, SYS_link,    SYS_linkat,   SYS_unlink,
      SYS_unlinkat, SYS_rmdir,    SYS_mkdir,     SYS_mkdirat, SYS_chmod,    SYS_fchmod,
      SYS_fchmodat, SYS_fsync,    SYS_fdatasync, SYS_syncfs,  SYS_sendfile, SYS_copy_file_range};
  return calls.contains(call.orig_rax) || (call.orig_rax == SYS_openat && (call.rdx & O_CREAT));
}
// Kills after the n-th call (from 0), or the n-th that changed files.
KillWhen after(int n, bool changes) {
  return [=](const auto& call) mutable { return (!changes || changedFiles(call)) && n-- == 0; };
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
  for (const char* save : {"save/slot1.sav", "userdata/settings.cfg"})
    writeBytes(root / save, save);
}

std::function<void()> helperRun(const fs::path& root, const fs::path& staged) {
  return [launcher = (root / "tarn-hollow-launcher").string(), staged = staged.string()] {
    const std::string self = std::to_string(getpid());  // not the launcher: no wait
    // LeakSanitizer stops the world with ptrace at exit, which a traced process cannot allow.
    const char* asan = std::getenv("ASAN_OPTIONS");
    setenv("ASAN_OPTIONS", (std::string(asan ? asan : "") + ":detect_leaks=0").c_str(), 1);
    execl(TH_UPDATE_HELPER, "tarn-hollow-update-helper", "--wait-pid", self.c_str(), "--replace",
          staged.c_str(), "--target", launcher.c_str(), "--relaunch", launcher.c_str(), nullptr);
  };
}

bool checkAndApply(const fs::path& root, const std::string& server, fs::path& staged) {
  update::Updater updater(root);
  updater.server = server;
  update::UpdatePlan plan;
  std::string error;
  return updater.check("stable", plan, error) && updater.apply(plan, nullptr, error, &staged);
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

  std::function<void()> applyRun(const fs::path& root) const {
    return [root, server = nginx.url()] {
      fs::path staged;
      _exit(checkAndApply(root, server, staged) ? 0 : 1);
    };
  }

  // What the next launcher start does; true when it handed a launcher to the helper.
  bool nextStart(const fs::path& root) const {
    fs::path staged;
    EXPECT_TRUE(checkAndApply(root, nginx.url(), staged));
    EXPECT_TRUE(staged.empty() || runKilledWhen(helperRun(root, staged), after(-1, false)) == 0);
    EXPECT_EQ(snapshotDiff(installSnapshot(expected.path()), installSnapshot(root)), "");
    return !staged.empty();
  }

  TempDir www, expected;
  std::vector<std::unique_ptr<TempDir>> installs;
  NginxServer nginx{www.path()};
};

TEST_F(CrashSafety, AnApplyKilledAfterAnyChangeOrAtRandomIsCompletedByTheNextStart) {
  int calls = 0, changes = 0;
  const KillWhen count = [&](const auto& call) {  // through a whole apply, killing nothing
    changes += changedFiles(call) ? 1 : 0;
    return ++calls < 0;
  };
  ASSERT_EQ(runKilledWhen(applyRun(oldInstall()), count), 0);
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  for (int kill = 0; kill < changes + 30; ++kill) {
    const bool chosen = kill < changes;
    const int stop = static_cast<int>(random() % calls);
    SCOPED_TRACE(chosen ? "after change " + std::to_string(kill)
                        : "after call " + std::to_string(stop) + ", seed " + std::to_string(seed));
    const fs::path install = oldInstall();
    const int status =
        runKilledWhen(applyRun(install), chosen ? after(kill, true) : after(stop, false));
    EXPECT_TRUE(status == kKilled || !chosen) << status;
    for (const fs::path& file : {install / "tarn-hollow", install / "tarn-hollow-launcher"})
      EXPECT_TRUE(!fs::exists(file) || fileMode(file) == 0755u) << file;
    nextStart(install);
  }
}

TEST_F(CrashSafety, AHelperKilledAtAnyStepLeavesALauncherAndTheNextStartHandsItOverAgain) {
  for (int change = 0;; ++change) {
    SCOPED_TRACE("helper killed after change " + std::to_string(change));
    const auto install = oldInstall();
    const fs::path launcher = install / "tarn-hollow-launcher";
    const std::string old = readBytes(launcher);
    fs::path staged;
    ASSERT_TRUE(checkAndApply(install, nginx.url(), staged));
    if (runKilledWhen(helperRun(install, staged), after(change, true)) != kKilled) break;
    EXPECT_EQ(fileMode(launcher), 0755u);
    EXPECT_EQ(runProcess({launcher.string()}).exitCode, 0);
    EXPECT_EQ(nextStart(install), readBytes(launcher) == old);
  }
}

}  // namespace
}  // namespace th::test
