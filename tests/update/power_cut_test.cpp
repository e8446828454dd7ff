// Power cuts on real ext4, xfs and btrfs: a start or a publish on a loop-mounted image is killed
// by strace at a chosen call; the image, copied at once as the device holds it, is mounted on a
// second loop device, where recovery runs: the copy shows the power cut, the original the kill.
#include <gtest/gtest.h>

#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <regex>
#include <sstream>

#include "tests/support/mounted_image.h"
#include "tests/support/update_server.h"
#include "update/manifest.h"
#include "update/signature.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;

// Long commit intervals keep the file system from writing anything unasked while the image is
// copied; xfs has no such option, and its log is pushed only every 30 s.
struct FileSystem {
  std::string name;
  std::vector<std::string> mkfs;
  std::string options, copyOptions;  // the copy of an xfs image has its original's id
};
const FileSystem kFileSystems[] = {
    {"ext4", {"/usr/sbin/mkfs.ext4", "-q", "-F"}, "commit=600", ""},
    {"xfs", {"/usr/sbin/mkfs.xfs", "-q", "-f"}, "", "nouuid"},
    {"btrfs", {"/usr/sbin/mkfs.btrfs", "-q", "-f"}, "commit=600", ""}};
void PrintTo(const FileSystem& type, std::ostream* out) { *out << type.name; }

// The n-th (from 1) call of its name, as strace counts; chosen when it changes names, modes or
// disk contents: killed on entry of each, a program leaves every state a kill can leave.
struct Call {
  std::string name;
  int nth;
  bool chosen, atMarker = false;  // atMarker: the marker's opening or its write
};
const std::regex kChange(
    "^(rename|link|unlink|rmdir|mkdir|f?chmod|f?sync|fdatasync|syncfs|sendfile|"
    "copy_file_range|symlink)|^openat\\(.*O_CREAT");

// `argv` under strace; its exit code, -1 when killed. LeakSanitizer's exit check needs ptrace.
int runTraced(const std::string& output, const std::string& expression,
              std::vector<std::string> argv) {
  argv.insert(argv.begin(), {TH_STRACE, "-o", output, "-e", expression, "--"});
  const char* asan = std::getenv("ASAN_OPTIONS");
  const std::string noLeaks = std::string(asan ? asan : "") + ":detect_leaks=0";
  return runProcess(argv, {{{"ASAN_OPTIONS", noLeaks}}, {}}).exitCode;
}

// What is wrong with a place after a cut, "" when nothing; `shows` tells what the place shows.
using Judge = std::function<std::string(const fs::path& place, std::string& shows)>;

// Each cut point of `program` on a place that `prepare` laid out on a fresh file system (the least
// xfs takes): the image a power cut leaves, recovered, then the place a kill leaves, judged.
std::vector<Call> sweep(const FileSystem& type, const std::string& what,
                        const std::function<void(const fs::path&)>& prepare,
                        const std::function<std::vector<std::string>(const fs::path&)>& program,
                        const Judge& judge) {
  const auto began = std::chrono::steady_clock::now();
  const MountedImage disk({{"/usr/bin/truncate", "-s", "300M"}, type.mkfs}, type.name,
                          type.options);
  EXPECT_EQ(disk.problem(), "");
  if (!disk.problem().empty()) return {};
  // Every call of one whole run (its threads and children aside), in order.
  prepare(disk.root() / "whole");
  const TempDir trace;
  EXPECT_EQ(runTraced((trace / "calls").string(), "trace=all", program(disk.root() / "whole")), 0);
  std::vector<Call> calls;
  std::map<std::string, int> seen;
  std::istringstream lines(readBytes(trace / "calls"));
  bool markerOpen = false;
  for (std::string line; std::getline(lines, line);) {
    const std::string name = line.substr(0, line.find('('));
    if (name.find(' ') != std::string::npos) continue;  // a signal or the exit
    const bool opensMarker = line.find("game_version\", O_WRONLY") != std::string::npos;
    const bool writesMarker = markerOpen && name == "write";
    markerOpen = opensMarker || (markerOpen && !writesMarker);
    calls.push_back({name, ++seen[name], std::regex_search(line, kChange) || writesMarker,
                     opensMarker || writesMarker});
  }
  // The chosen calls, TH_POWER_CUT_RANDOM (default 2) others picked at random, and the end: what a
  // program has flushed must be on disk when it is done.
  const unsigned seed = std::random_device()();
  const char* wanted = std::getenv("TH_POWER_CUT_RANDOM");
  std::vector<Call> others, cuts;
  for (const Call& call : calls) (call.chosen ? cuts : others).push_back(call);
  std::shuffle(others.begin(), others.end(), std::mt19937(seed));
  others.resize(std::min<size_t>(others.size(), wanted ? std::stoul(wanted) : 2));
  cuts.insert(cuts.end(), others.begin(), others.end());
  cuts.push_back({"done", 0, true});
  std::map<std::string, int> shown;
  int good = 0;
  for (const Call& cut : cuts) {
    const std::string call =
        cut.nth == 0 ? cut.name : cut.name + ":signal=KILL:when=" + std::to_string(cut.nth);
    SCOPED_TRACE(type.name + " " + what + ", " + call + ", seed " + std::to_string(seed));
    const fs::path place = disk.root() / call;
    prepare(place);
    runProcess({"/usr/bin/sync", "-f", place.string()});  // all but the cut program on disk
    const int exitCode =
        runTraced("/dev/null", cut.nth ? "inject=" + call : "trace=none", program(place));
    EXPECT_TRUE(cut.nth ? exitCode == -1 || !cut.chosen : exitCode == 0);
    std::string shows, killedShows;
    const MountedImage cutDisk({{"/usr/bin/cp", "--sparse=always", disk.image().string()}},
                               type.name, type.copyOptions);
    const std::string problems =
        cutDisk.problem().empty() ? judge(cutDisk.root() / call, shows) : cutDisk.problem();
    EXPECT_EQ(problems, "") << "after the power cut";
    // A kill as the marker is opened or written leaves every file new under the old or an empty
    // marker, which no later check repairs: the price of the marker written in place, last.
    if (!cut.atMarker) {
      EXPECT_EQ(judge(place, killedShows), "") << "after the kill";
    }
    ++shown[shows];
    good += problems.empty();
  }
  std::cout << "power cuts, " << type.name << ", " << what << ": " << good << " of " << cuts.size()
            << " images good, in "
            << std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count()
            << " s; the images show:";
  for (const auto& [shows, count] : shown) std::cout << " " << count << " x " << shows << ";";
  std::cout << std::endl;
  return calls;
}

// 1.0.0, or 2.0.0: the game and a pack changed, a pack kept, a map in a new folder, and the
// launcher changed unless `sameLauncher`.
std::vector<ReleaseFile> filesOf(const std::string& version, bool sameLauncher = false) {
  const std::string launcher = sameLauncher ? "1.0.0" : version;
  std::vector<ReleaseFile> files = {
      {"tarn-hollow", "#!/bin/sh\necho game " + version + "\n", true},
      {"tarn-hollow-launcher", "#!/bin/sh\n# launcher " + launcher + "\n", true},
      {"data/a.pak", std::string(300000, version[0])},
      {"data/b.pak", "the same in every release"},
      {"data/maps/forest.map", version}};
  files.resize(version == "1.0.0" ? 4 : 5);
  return files;
}
void writeFiles(const fs::path& root, const std::string& version, bool sameLauncher = false) {
  for (const ReleaseFile& file : filesOf(version, sameLauncher)) {
    writeBytes(root / file.path, file.bytes);
    fs::permissions(root / file.path, fs::perms(file.executable ? 0755 : 0644));
  }
}
void layOut(const fs::path& root, const std::string& version, const std::string& server,
            bool sameLauncher = false) {
  prepareInstall(root, server, version + "\n");
  writeFiles(root, version, sameLauncher);
  for (const char* save : {"save/slot1.sav", "userdata/my.cfg"}) writeBytes(root / save, save);
}

// Each file old or new or missing (the next check plans it again), with its bit; the marker
// names 2.0.0 only over all of 2.0.0, or is torn (written in place) to a prefix of a version.
std::string cutInstallProblems(const fs::path& install, std::string& marker) {
  std::string problems;
  std::map<std::string, std::pair<std::string, std::string>> versions;  // path: old, new
  for (const ReleaseFile& file : filesOf("1.0.0")) versions[file.path].first = file.bytes;
  for (const ReleaseFile& file : filesOf("2.0.0")) versions[file.path].second = file.bytes;
  marker = readBytes(install / "data" / "game_version");
  for (const auto& [path, bytes] : versions) {
    std::error_code ignored;
    const bool there = fs::exists(install / path, ignored);
    const std::string now = readBytes(install / path);
    if (marker == "2.0.0\n" && now != bytes.second && path != "tarn-hollow-launcher")
      problems += "the marker names 2.0.0 over an old or missing " + path + "\n";
    if (there && now != bytes.first && now != bytes.second)
      problems += path + " is neither old nor new\n";
    if (there && path.starts_with("tarn-hollow") && fileMode(install / path) != 0755u)
      problems += path + " is not executable\n";
  }
  if (!std::string("1.0.0\n").starts_with(marker) && !std::string("2.0.0\n").starts_with(marker))
    problems += "the marker holds '" + marker + "'\n";
  marker = marker.ends_with("\n") ? marker.substr(0, 5) : "a torn marker '" + marker + "'";
  if (runProcess({(install / "tarn-hollow-launcher").string()}).exitCode != 0)
    problems += "the launcher does not start\n";
  return problems;
}

class PowerCut : public ::testing::TestWithParam<FileSystem> {};

// Each start updates 1.0.0 to 2.0.0, once with a new launcher and once with the same one (then
// a start after a cut plans nothing unless a file is still old).
TEST_P(PowerCut, AStartCutAnywhereLeavesALauncherThatStartsAndAnInstallThatHeals) {
  for (const bool sameLauncher : {false, true}) {
    TempDir www, expected;
    NginxServer nginx(www.path());
    ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
    publishRelease(www.path(), {"2.0.0", filesOf("2.0.0", sameLauncher), false, ""});
    layOut(expected.path(), "2.0.0", nginx.url(), sameLauncher);
    const auto start = [&](const fs::path& root) {
      return std::vector<std::string>{TH_UPDATE_CLIENT, root.string(), nginx.url()};
    };
    // The next start heals the install, the marker naming 2.0.0, handing the new launcher over
    // again (printing it) unless the swap happened; the player's files stay as they were.
    const Judge judge = [&](const fs::path& install, std::string& marker) {
      std::string problems = cutInstallProblems(install, marker);
      const fs::path launcher = install / "tarn-hollow-launcher";
      const bool swapped = readBytes(launcher) == readBytes(expected / "tarn-hollow-launcher");
      const ProcessResult next = runProcess(start(install));
      if (!next.out.starts_with("2.0.0\n") || (next.out.size() > 6) == swapped)
        problems += "the next start printed " + next.out;
      return problems + snapshotDiff(installSnapshot(expected.path()), installSnapshot(install));
    };
    const std::vector<Call> calls = sweep(
        GetParam(), sameLauncher ? "start, same launcher" : "start, new launcher",
        [&](const fs::path& root) { layOut(root, "1.0.0", nginx.url()); }, start, judge);
    // Durable before done: each program flushes what it renames into place, before and after.
    std::string order;  // of the changes: f a flush, r a rename, c any other; | a new program
    for (const Call& call : calls) {
      const bool flush = call.name.find("sync") != std::string::npos;
      if (call.chosen) order += flush ? 'f' : call.name.starts_with("rename") ? 'r' : 'c';
      if (call.name == "execve") order += '|';
    }
    std::istringstream programs(order);
    for (std::string part; std::getline(programs, part, '|');)
      EXPECT_TRUE(std::regex_match(part, std::regex("[^r]*|c*f.*r[^r]*f[^r]*"))) << order;
  }
}

// The served place holds one release, whole: its manifest signed, each file with its digest.
std::string servedProblems(const fs::path& serverRoot, std::string& version) {
  const fs::path served = channelFolder(serverRoot);
  const std::string manifestText = readBytes(served / "manifest.json");
  std::string signature = readBytes(served / "manifest.sig"), error;
  signature = signature.substr(0, signature.find('\n'));
  update::Manifest manifest;
  if (!update::verifySignedManifest(manifestText, signature, TH_DEV_PUBLIC_KEY, error) ||
      !update::parseManifest(manifestText, manifest, error))
    return "served: " + error + "\n";
  version = "release " + manifest.version;
  std::string problems;
  for (const update::ManifestFile& file : manifest.files)
    if (sha256Hex(readBytes(served / "files" / file.path)) != file.sha256)
      problems += file.path + " is not as its manifest says\n";
  return problems;
}

TEST_P(PowerCut, APublishCutAnywhereServesTheOldReleaseOrTheNewOneWhole) {
  TempDir studio;
  for (const char* version : {"1.0.0", "2.0.0"}) writeFiles(studio / version, version);
  const auto publish = [&](const std::string& version, const fs::path& serverRoot) {
    return std::vector<std::string>{TH_PUBLISH_DEVKEY, "release",
                                    "--from",          (studio / version).string(),
                                    "--version",       version,
                                    "--key",           TH_DEV_PRIVATE_KEY,
                                    "--server-root",   serverRoot.string()};
  };
  sweep(
      GetParam(), "publish",
      [&](const fs::path& root) { ASSERT_EQ(runProcess(publish("1.0.0", root)).exitCode, 0); },
      [&](const fs::path& root) { return publish("2.0.0", root); }, servedProblems);
}

INSTANTIATE_TEST_SUITE_P(, PowerCut, ::testing::ValuesIn(kFileSystems),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace th::test
