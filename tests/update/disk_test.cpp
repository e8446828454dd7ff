// What a disk does to an update, on real ext4, xfs and btrfs images on loop devices.
// Power cuts: a start or a publish is killed by strace at a chosen call; the image, copied at once
// as the device holds it, is mounted on a second loop device, where recovery runs: the copy shows
// the power cut, the original the kill. Full disks: the update job runs short of room or inodes.
#include <curl/curl.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <sstream>

#include "launcher/update_job.h"
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

// An image that `steps` make (each given its path last), in memory where it can be, on a loop
// device of its own and mounted; undone at scope end (lazily: a relaunched launcher may run).
class MountedImage {
 public:
  MountedImage(std::vector<std::vector<std::string>> steps, const std::string& type,
               const std::string& options) {
    if (!fs::exists("/dev/loop-control")) problem_ = "no loop devices: run as root, load `loop`";
    steps.push_back({"/usr/sbin/losetup", "--find", "--show"});
    for (std::vector<std::string>& step : steps) {
      step.push_back(image().string());
      const ProcessResult done = problem_.empty() ? runProcess(step) : ProcessResult{};
      if (problem_.empty() && done.exitCode != 0) problem_ = step[0] + ": " + done.err;
      device_ = done.out.substr(0, done.out.find('\n'));  // the last is losetup's answer
    }
    fs::create_directories(root());
    if (problem_.empty() &&
        ::mount(device_.c_str(), root().c_str(), type.c_str(), 0, options.c_str()) != 0)
      problem_ = "mount -t " + type + " -o '" + options + "': " + strerror(errno);
  }
  ~MountedImage() {
    if (::umount2(root().c_str(), 0) != 0) ::umount2(root().c_str(), MNT_DETACH);
    if (!device_.empty()) runProcess({"/usr/sbin/losetup", "--detach", device_});
  }

  fs::path image() const { return dir_ / "image"; }
  fs::path root() const { return dir_ / "mnt"; }
  const std::string& problem() const { return problem_; }

 private:
  TempDir dir_{fs::is_directory("/dev/shm") ? "/dev/shm" : ""};
  std::string device_, problem_;
};

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

void syncFileSystem(const fs::path& path) { runProcess({"/usr/bin/sync", "-f", path.string()}); }

// `argv` under strace; its exit code, -1 when killed.
int runTraced(const std::string& output, const std::string& expression,
              const std::vector<std::string>& argv) {
  return runProcess(underStrace(expression, argv, output), tracedOptions()).exitCode;
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
    // An unbuffered stream writes with writev.
    const bool writesMarker = markerOpen && (name == "write" || name == "writev");
    markerOpen = opensMarker || (markerOpen && !writesMarker);
    calls.push_back({name, ++seen[name], std::regex_search(line, kChange) || writesMarker,
                     opensMarker || writesMarker});
    // The status calls between the last rename and the marker's opening are that same instant.
    for (auto before = calls.rbegin() + 1;
         opensMarker && before != calls.rend() && !before->name.starts_with("rename"); ++before)
      before->atMarker = true;
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
    syncFileSystem(place);  // all but the cut program on disk
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

// Takes all the room there is, then gives back `blocks` blocks (counted once committed).
void leaveBlocks(const fs::path& filler, unsigned blocks) {
  const int fd = ::open(filler.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  struct statvfs disk {};
  ::fstatvfs(fd, &disk);
  ::fallocate(fd, 0, 0, static_cast<off_t>((disk.f_bavail - 256) * disk.f_frsize));
  const std::string block(disk.f_frsize, 'x');
  off_t size = ::lseek(fd, 0, SEEK_END);
  while (::pwrite(fd, block.data(), block.size(), size) == static_cast<ssize_t>(block.size()))
    size += static_cast<off_t>(block.size());
  ::fsync(fd);
  ::ftruncate(fd, size - static_cast<off_t>(blocks * disk.f_frsize));
  ::close(fd);
  syncFileSystem(filler);
}

// Takes every inode there is with empty files, then gives back `inodes` of them.
void leaveInodes(const fs::path& folder, unsigned inodes) {
  fs::create_directories(folder);
  int made = 0;
  for (int fd; (fd = ::open((folder / std::to_string(made)).c_str(),
                            O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600)) >= 0;)
    ::close(fd), ++made;
  while (inodes-- > 0 && made > 0) fs::remove(folder / std::to_string(--made));
  syncFileSystem(folder);
}

// The bytes a failed update left in the work folder, which nothing reclaims.
std::uintmax_t workFolderBytes(const fs::path& install) {
  std::uintmax_t bytes = 0;
  std::error_code ignored;
  for (const auto& entry :
       fs::recursive_directory_iterator(install / ".tarnhollow-update", ignored))
    if (entry.is_regular_file(ignored)) bytes += entry.file_size(ignored);
  return bytes;
}

std::string jobLines(const fs::path& install) {
  Shared shared;
  shared.busy = true;
  runUpdateJob(shared, install, "stable", false, false);
  const Snapshot s = snapshot(shared);
  return s.status + " / " + s.detail;
}

// The download fails at the stream, at its close (then the digest) or at its file.
const std::string kDownload = std::string(curl_easy_strerror(CURLE_WRITE_ERROR)) + "|download_.*";
struct Shortage {
  std::string name;
  FileSystem type;
  std::vector<std::string> mkfsOptions;
  std::function<void(const fs::path& filler, unsigned level)> leave;
  std::vector<std::string> mustFail;  // detail lines that some level must end with
};
void PrintTo(const Shortage& shortage, std::ostream* out) { *out << shortage.name; }
const Shortage kShortages[] = {
    {"ext4_room",
     kFileSystems[0],
     {"-m", "0", "-b", "4096"},
     leaveBlocks,
     {"update_workdir_failed", kDownload, "update_(backup|destination)_failed:.*",
      "version_marker_write_failed"}},
    {"xfs_room",
     kFileSystems[1],
     {},
     leaveBlocks,
     {kDownload, "update_(backup|destination)_failed:.*"}},
    {"ext4_inodes",
     kFileSystems[0],
     {"-N", "256"},
     leaveInodes,
     {"update_workdir_failed", "download_destination_unwritable",
      "update_(backup|destination)_failed:.*", "version_marker_write_failed"}},
};

class DiskFull : public ::testing::TestWithParam<Shortage> {};

// A first start (no marker yet, so writing it takes room) of 1.0.0 left with 0, 1, 2, ... blocks
// or inodes, until the update to a 2.0.0 that keeps the launcher goes through.
TEST_P(DiskFull, AnUpdateShortOfRoomFailsCleanlyAndConvergesOnceRoomIsMade) {
  const Shortage& shortage = GetParam();
  TempDir www, reference;
  NginxServer nginx(www.path());
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  publishRelease(www.path(), {"2.0.0", filesOf("2.0.0", true), false, ""});
  const auto layOutFirst = [&](const fs::path& root, const std::string& version) {
    layOut(root, version, nginx.url(), true);
    if (version == "1.0.0") fs::remove(root / "data/game_version");
    return installSnapshot(root);
  };
  const FolderSnapshot older = layOutFirst(reference / "1", "1.0.0");
  const FolderSnapshot newer = layOutFirst(reference / "2", "2.0.0");
  std::vector<std::string> mkfs = shortage.type.mkfs;
  mkfs.insert(mkfs.end(), shortage.mkfsOptions.begin(), shortage.mkfsOptions.end());
  const MountedImage disk({{"/usr/bin/truncate", "-s", "300M"}, mkfs}, shortage.type.name, "");
  ASSERT_EQ(disk.problem(), "");
  std::set<std::string> failures;
  std::string left;
  for (unsigned level = 0; level < 200; ++level) {
    SCOPED_TRACE(shortage.name + " level " + std::to_string(level));
    const fs::path install = disk.root() / "install";
    layOutFirst(install, "1.0.0");
    shortage.leave(disk.root() / "filler", level);
    const std::string lines = jobLines(install);
    FolderSnapshot now = installSnapshot(install);
    if (lines == "READY TO PLAY / INSTALLED VERSION 2.0.0") {
      EXPECT_EQ(snapshotDiff(newer, now), "");
      break;
    }
    ASSERT_TRUE(lines.starts_with("UPDATE FAILED - TRY AGAIN / ")) << lines;
    const std::string detail = lines.substr(lines.find(" / ") + 3);
    failures.insert(detail);
    // A marker write that fails leaves it empty (it is written in place); folders made for new
    // files stay after a rollback.
    if (detail == "version_marker_write_failed" && readBytes(install / "data/game_version").empty())
      now.erase("data/game_version");
    std::erase_if(now, [&](const auto& entry) {
      return !older.contains(entry.first) && entry.second.starts_with("folder");
    });
    EXPECT_EQ(snapshotDiff(older, now), "") << detail;
    left += " " + std::to_string(workFolderBytes(install));
    fs::remove_all(disk.root() / "filler");
    syncFileSystem(disk.root());
    EXPECT_EQ(jobLines(install), "READY TO PLAY / INSTALLED VERSION 2.0.0") << detail;
    EXPECT_EQ(snapshotDiff(newer, installSnapshot(install)), "") << detail;
    fs::remove_all(install);
  }
  std::cout << shortage.name << ": failures seen:";
  for (const std::string& failure : failures) std::cout << " '" << failure << "'";
  std::cout << "; bytes left in the work folder by each:" << left << std::endl;
  for (const std::string& expected : shortage.mustFail)
    EXPECT_TRUE(std::any_of(failures.begin(), failures.end(), [&](const std::string& seen) {
      return std::regex_match(seen, std::regex(expected));
    })) << expected;
}

INSTANTIATE_TEST_SUITE_P(, DiskFull, ::testing::ValuesIn(kShortages),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace th::test
