// The engine (a process of its own) and the update helper SIGKILLed by strace, then run again.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <regex>
#include <sstream>

#include "tests/support/files.h"
#include "tests/support/nginx_server.h"
#include "tests/support/process.h"
#include "tests/support/release_builder.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;

// A call as strace's `when` counts them: the n-th (from 1) of its name. Chosen are those that
// change names, modes or what is on disk: killed on entry of each, a program leaves every state a
// kill at any moment can leave, except files half written.
struct Call {
  std::string name;
  int nth;
  bool chosen;
};
const std::regex kChange(
    "^(rename|link|unlink|rmdir|mkdir|f?chmod|f?sync|fdatasync|sendfile|"
    "copy_file_range)|^openat\\(.*O_CREAT");

// `argv` under strace; its exit code, -1 when killed. LeakSanitizer's exit check needs ptrace.
int runTraced(const std::string& output, const std::string& expression,
              std::vector<std::string> argv) {
  argv.insert(argv.begin(), {TH_STRACE, "-o", output, "-e", expression, "--"});
  const char* asan = std::getenv("ASAN_OPTIONS");
  const std::string noLeaks = std::string(asan ? asan : "") + ":detect_leaks=0";
  return runProcess(argv, {{{"ASAN_OPTIONS", noLeaks}}, {}}).exitCode;
}

// Every call of one whole run of `argv` (its threads and children aside), in order.
std::vector<Call> callsOf(const std::vector<std::string>& argv) {
  TempDir trace;
  EXPECT_EQ(runTraced((trace / "calls").string(), "trace=all", argv), 0);
  std::vector<Call> calls;
  std::map<std::string, int> seen;
  std::istringstream lines(readBytes(trace / "calls"));
  for (std::string line; std::getline(lines, line);) {
    const std::string name = line.substr(0, line.find('('));
    if (name.find(' ') == std::string::npos)  // not a signal or the exit
      calls.push_back({name, ++seen[name], std::regex_search(line, kChange)});
  }
  return calls;
}

// 1.0.0, or 2.0.0 which changes both executables and a pack, keeps a pack and adds a map in a new
// folder; laid out as an install with the player's files.
std::vector<ReleaseFile> filesOf(const std::string& version) {
  std::vector<ReleaseFile> files = {
      {"tarn-hollow", "#!/bin/sh\necho game " + version + "\n", true},
      {"tarn-hollow-launcher", "#!/bin/sh\n# launcher " + version + "\n", true},
      {"data/a.pak", std::string(300000, version[0])},
      {"data/b.pak", "the same in every release"},
      {"data/maps/forest.map", version}};
  files.resize(version == "1.0.0" ? 4 : 5);
  return files;
}
void layOut(const fs::path& root, const std::string& version, const std::string& server) {
  prepareInstall(root, server, version + "\n");
  for (const ReleaseFile& file : filesOf(version)) {
    writeBytes(root / file.path, file.bytes);
    if (file.executable) fs::permissions(root / file.path, fs::perms(0755));
  }
  for (const char* save : {"save/slot1.sav", "userdata/my.cfg"}) writeBytes(root / save, save);
}

// The helper as the launcher starts it; no process has the id it waits for.
std::vector<std::string> helper(const fs::path& root, const std::string& staged) {
  const std::string launcher = (root / "tarn-hollow-launcher").string();
  return {TH_UPDATE_HELPER, "--wait-pid", "2147483647", "--replace", staged,
          "--target",       launcher,     "--relaunch", launcher};
}

TEST(CrashSafety, AKilledEngineOrHelperLeavesItsExecutablesAndTheNextStartHealsTheInstall) {
  TempDir www, expected, installs;  // installs are kept: a relaunched launcher may still start
  NginxServer nginx(www.path());
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  publishRelease(www.path(), {"2.0.0", filesOf("2.0.0"), false, ""});
  layOut(expected.path(), "2.0.0", nginx.url());
  const std::string newLauncher = readBytes(expected / "tarn-hollow-launcher");
  // Runs the engine; the launcher it staged for the helper, printed after the version, or "".
  const auto stagedBy = [&](const fs::path& root) {
    const std::string out = runProcess({TH_UPDATE_CLIENT, root.string(), nginx.url()}).out;
    EXPECT_EQ(out.substr(0, 6), "2.0.0\n");
    return out.size() > 6 ? out.substr(6, out.size() - 7) : "";
  };
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  int made = 0;
  for (const bool inHelper : {false, true}) {
    // Lays out 1.0.0 at `root`; what to run there: the engine, or the helper after the engine.
    const auto onOldInstall = [&](const fs::path& root) {
      layOut(root, "1.0.0", nginx.url());
      const std::vector<std::string> engine{TH_UPDATE_CLIENT, root.string(), nginx.url()};
      return inHelper ? helper(root, stagedBy(root)) : engine;
    };
    const std::vector<Call> calls = callsOf(onOldInstall(installs / std::to_string(made++)));
    std::vector<Call> kills;
    std::string order;  // of the changes: f a flush, r a rename, c any other
    for (const Call& call : calls) {
      if (!call.chosen) continue;
      kills.push_back(call);
      const bool flush = call.name.find("sync") != std::string::npos;
      order += flush ? 'f' : call.name.starts_with("rename") ? 'r' : 'c';
    }
    // Durable before done: the new files are flushed before the first rename, and after the last.
    EXPECT_LT(order.find('f'), order.find('r')) << order;
    EXPECT_NE(order.find('f', order.rfind('r')), std::string::npos) << order;
    for (int i = 0; i < 20; ++i) kills.push_back(calls[random() % calls.size()]);
    for (const Call& kill : kills) {
      const std::string call = kill.name + ":signal=KILL:when=" + std::to_string(kill.nth);
      SCOPED_TRACE((inHelper ? "helper, " : "engine, ") + call + ", seed " + std::to_string(seed));
      const fs::path install = installs / std::to_string(made++);
      const fs::path launcher = install / "tarn-hollow-launcher";
      const int status = runTraced("/dev/null", "inject=" + call, onOldInstall(install));
      EXPECT_TRUE(status == -1 || !kill.chosen) << status;
      for (const fs::path& file : {install / "tarn-hollow", launcher})
        EXPECT_TRUE(!fs::exists(file) || fileMode(file) == 0755u) << file;
      EXPECT_EQ(runProcess({launcher.string()}).exitCode, 0);
      // The next start hands the new launcher over again unless the swap happened.
      const bool swapped = readBytes(launcher) == newLauncher;
      const std::string staged = stagedBy(install);
      EXPECT_EQ(staged.empty(), swapped);
      EXPECT_TRUE(swapped || runProcess(helper(install, staged)).exitCode == 0);
      EXPECT_EQ(snapshotDiff(installSnapshot(expected.path()), installSnapshot(install)), "");
    }
  }
}

}  // namespace
}  // namespace th::test
