// A launcher start, the engine and then the update helper, SIGKILLed by strace, then run again.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <regex>
#include <sstream>

#include "tests/support/update_server.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;

// A call as strace's `when` counts them, the n-th (from 1) of its name; chosen when it changes
// names, modes or disk contents: killed on entry of each, a program leaves every state that a kill
// at any moment can leave, half-written files aside.
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

// 1.0.0, or 2.0.0: both executables and a pack changed, a pack kept, a map in a new folder.
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

TEST(CrashSafety, AStartKilledAnywhereLeavesItsExecutablesAndTheNextStartHealsTheInstall) {
  TempDir www, expected, installs;  // installs are kept: a relaunched launcher may still start
  NginxServer nginx(www.path());
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  publishRelease(www.path(), {"2.0.0", filesOf("2.0.0"), false, ""});
  layOut(expected.path(), "2.0.0", nginx.url());
  const auto start = [&](const fs::path& root) {
    return std::vector<std::string>{TH_UPDATE_CLIENT, root.string(), nginx.url()};
  };
  layOut(installs / "whole", "1.0.0", nginx.url());
  const std::vector<Call> calls = callsOf(start(installs / "whole"));
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  std::string order;  // of the changes: f a flush, r a rename, c any other; | a new program
  for (const Call& kill : calls) {
    const bool flush = kill.name.find("sync") != std::string::npos;
    if (kill.chosen) order += flush ? 'f' : kill.name.starts_with("rename") ? 'r' : 'c';
    if (kill.name == "execve") order += '|';
    if (!kill.chosen && random() % calls.size() >= 40) continue;  // 40 random ones on average
    const std::string call = kill.name + ":signal=KILL:when=" + std::to_string(kill.nth);
    SCOPED_TRACE(call + ", seed " + std::to_string(seed));
    const fs::path install = installs / call, launcher = install / "tarn-hollow-launcher";
    layOut(install, "1.0.0", nginx.url());
    EXPECT_TRUE(runTraced("/dev/null", "inject=" + call, start(install)) == -1 || !kill.chosen);
    for (const fs::path& file : {install / "tarn-hollow", launcher})
      EXPECT_TRUE(!fs::exists(file) || fileMode(file) == 0755u) << file;
    EXPECT_EQ(runProcess({launcher.string()}).exitCode, 0);
    // The next start hands the new launcher over again, printing it, unless the swap happened.
    const bool swapped = readBytes(launcher) == readBytes(expected / "tarn-hollow-launcher");
    const ProcessResult next = runProcess(start(install));
    EXPECT_EQ(next.out.find("2.0.0\n"), 0u);
    EXPECT_EQ(next.out.size() > 6, !swapped) << next.out;
    EXPECT_EQ(snapshotDiff(installSnapshot(expected.path()), installSnapshot(install)), "");
  }
  // Durable before done: each program flushes what it renames into place, before and after.
  std::istringstream programs(order);
  for (std::string part; std::getline(programs, part, '|');)
    EXPECT_TRUE(std::regex_match(part, std::regex("[^r]*|c*f.*r[^r]*f[^r]*"))) << order;
}

}  // namespace
}  // namespace th::test
