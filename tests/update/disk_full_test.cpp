// The update job on a small real file system that runs out of room (or of inodes) at each step of
// an update in turn, from the first folder it makes to the marker: the install stays 1.0.0 or
// becomes 1.1.0 whole, the player sees the job's own lines, the saves stay, and the next job,
// once room is made, converges.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <functional>
#include <iostream>
#include <regex>
#include <set>

#include "launcher/update_job.h"
#include "tests/support/mounted_image.h"
#include "tests/support/update_server.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;

// 1.0.0, or 1.1.0: the game and a pack changed, a map in a new folder, the launcher the same.
std::vector<ReleaseFile> filesOf(const std::string& version) {
  std::vector<ReleaseFile> files = {{"tarn-hollow", "#!/bin/sh\necho " + version + "\n", true},
                                    {"tarn-hollow-launcher", "#!/bin/sh\n", true},
                                    {"data/a.pak", std::string(20000, version.back())},
                                    {"data/maps/forest.map", version}};
  files.resize(version == "1.0.0" ? 3 : 4);
  return files;
}

// A first start has no marker yet (the install counts as 0.16.117), so writing it takes room.
FolderSnapshot layOut(const fs::path& root, const std::string& version, const std::string& url) {
  prepareInstall(root, url, version == "1.0.0" ? std::nullopt : std::optional(version + "\n"));
  for (const ReleaseFile& file : filesOf(version)) {
    writeBytes(root / file.path, file.bytes);
    fs::permissions(root / file.path, fs::perms(file.executable ? 0755 : 0644));
  }
  writeBytes(root / "save/slot1.sav", "the player's own");
  return installSnapshot(root);
}

void syncFileSystem(const fs::path& path) { runProcess({"/usr/bin/sync", "-f", path.string()}); }

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

struct Shortage {
  std::string name, fileSystem;
  std::vector<std::string> mkfs;
  std::function<void(const fs::path& mount, unsigned level)> leave;
  // Failures that must show up among the levels (patterns of the detail line).
  std::vector<std::string> mustFail;
};
void PrintTo(const Shortage& shortage, std::ostream* out) { *out << shortage.name; }

// The download fails at the stream, at its close (the digest) or at its file.
const char* const kDownload = "Failure writing output.*|download_.*";
const Shortage kShortages[] = {
    {"ext4_room",
     "ext4",
     {"/usr/sbin/mkfs.ext4", "-q", "-F", "-m", "0", "-b", "4096"},
     [](const fs::path& mount, unsigned level) { leaveBlocks(mount / "filler", level); },
     {"update_workdir_failed", kDownload, "update_(backup|destination)_failed:.*",
      "version_marker_write_failed"}},
    {"xfs_room",
     "xfs",
     {"/usr/sbin/mkfs.xfs", "-q", "-f"},
     [](const fs::path& mount, unsigned level) { leaveBlocks(mount / "filler", level); },
     {kDownload, "update_(backup|destination)_failed:.*"}},
    {"ext4_inodes",
     "ext4",
     {"/usr/sbin/mkfs.ext4", "-q", "-F", "-N", "256"},
     [](const fs::path& mount, unsigned level) { leaveInodes(mount / "filler", level); },
     {"update_workdir_failed", "download_destination_unwritable",
      "update_(backup|destination)_failed:.*", "version_marker_write_failed"}},
};

class DiskFull : public ::testing::TestWithParam<Shortage> {};

// Level by level (blocks or inodes left), until an update goes through.
TEST_P(DiskFull, AnUpdateShortOfRoomFailsCleanlyAndConvergesOnceRoomIsMade) {
  const Shortage& shortage = GetParam();
  TempDir www, reference;
  NginxServer nginx(www.path());
  ASSERT_TRUE(nginx.ok()) << nginx.errorLog();
  publishRelease(www.path(), {"1.1.0", filesOf("1.1.0"), false, ""});
  const FolderSnapshot older = layOut(reference / "1.0.0", "1.0.0", nginx.url());
  const FolderSnapshot newer = layOut(reference / "1.1.0", "1.1.0", nginx.url());
  std::vector<std::string> mkfs = shortage.mkfs;
  const MountedImage disk({{"/usr/bin/truncate", "-s", "300M"}, mkfs}, shortage.fileSystem, "");
  ASSERT_EQ(disk.problem(), "");
  std::set<std::string> failures;
  std::string left;
  for (unsigned level = 0; level < 64; ++level) {
    SCOPED_TRACE(shortage.name + " level " + std::to_string(level));
    const fs::path install = disk.root() / std::to_string(level);
    layOut(install, "1.0.0", nginx.url());
    shortage.leave(disk.root(), level);
    const std::string lines = jobLines(install);
    FolderSnapshot now = installSnapshot(install);
    const std::string marker = readBytes(install / "data/game_version");
    if (lines == "READY TO PLAY / INSTALLED VERSION 1.1.0") {
      EXPECT_EQ(snapshotDiff(newer, now), "");
      break;
    }
    ASSERT_TRUE(lines.starts_with("UPDATE FAILED - TRY AGAIN / ")) << lines;
    const std::string detail = lines.substr(lines.find(" / ") + 3);
    failures.insert(detail);
    // The marker is written in place: a write that fails leaves it empty over the old files.
    // Folders made for new files stay after a rollback.
    if (detail == "version_marker_write_failed" && marker.empty()) now.erase("data/game_version");
    std::erase_if(now, [&](const auto& entry) {
      return !older.contains(entry.first) && entry.second.starts_with("folder");
    });
    EXPECT_EQ(snapshotDiff(older, now), "") << detail;
    left += " " + std::to_string(workFolderBytes(install));
    fs::remove_all(disk.root() / "filler");
    syncFileSystem(disk.root());
    EXPECT_EQ(jobLines(install), "READY TO PLAY / INSTALLED VERSION 1.1.0") << detail;
    EXPECT_EQ(snapshotDiff(newer, installSnapshot(install)), "") << detail;
    fs::remove_all(install);
  }
  std::cout << shortage.name << ": the failures seen:";
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
