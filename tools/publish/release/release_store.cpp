#include "tools/publish/release/release_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <functional>
#include <system_error>
#include <utility>

#include "update/disk_flush.h"
#include "update/text_file.h"

namespace th::publish {
namespace fs = std::filesystem;
namespace {

using Problems = std::vector<std::string>;
using Releases = std::vector<std::pair<std::size_t, fs::path>>;

// The sequence number that starts a release folder's name; 0 for any other name.
std::size_t sequenceOf(const std::string& name) {
  std::size_t sequence = 0;
  const char* last = name.data() + name.size();
  const auto [end, result] = std::from_chars(name.data(), last, sequence);
  return result == std::errc() && end != last && *end == '-' ? sequence : 0;
}

// The version a release folder's name carries after its sequence number.
std::string versionOf(const fs::path& folder) {
  const std::string name = folder.filename().string();
  return name.substr(std::min(name.find('-') + 1, name.size()));
}

// The release folders below `folder`, newest (highest sequence) first.
Releases releasesIn(const fs::path& folder) {
  Releases releases;
  std::error_code error;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    const std::size_t sequence = sequenceOf(it->path().filename().string());
    std::error_code ignored;
    if (sequence > 0 && it->is_directory(ignored)) releases.emplace_back(sequence, it->path());
  }
  std::sort(releases.begin(), releases.end(), std::greater<>());
  return releases;
}

// Zero-padded, so that a listing sorts releases in the order they were published.
std::string releaseName(std::size_t sequence, const std::string& label) {
  std::string digits = std::to_string(sequence);
  if (digits.size() < 6) digits.insert(0, 6 - digits.size(), '0');
  return digits + "-" + label;
}

// Every file and folder below `folder`, and `folder` itself: a release goes live only once all of
// it is on disk, so that a power cut right after cannot serve players files never written.
bool flushTree(const fs::path& folder) {
  std::error_code error;
  bool flushed = true;
  fs::recursive_directory_iterator walk(folder, error), end;
  for (; !error && walk != end; walk.increment(error)) {
    flushed = update::flushToDisk(walk->path()) && flushed;
  }
  return !error && update::flushToDisk(folder) && flushed;
}

std::string problemAt(const fs::path& path, const std::string& what, const std::error_code& why) {
  return path.string() + ": " + what + ": " + why.message();
}

}  // namespace

void stampNewerThan(const fs::path& file, const fs::path& served) {
  struct stat mine;
  struct stat old;
  if (::stat(served.c_str(), &old) != 0 || ::stat(file.c_str(), &mine) != 0 ||
      mine.st_mtim.tv_sec > old.st_mtim.tv_sec) {
    return;
  }
  const struct timespec times[2] = {{0, UTIME_OMIT}, {old.st_mtim.tv_sec + 1, 0}};
  ::utimensat(AT_FDCWD, file.c_str(), times, 0);
}

ReleaseStore::ReleaseStore(const fs::path& serverRoot, const std::string& channel,
                           const std::string& platform)
    : channel_(serverRoot / channel),
      served_(channel_ / platform),
      releases_(channel_ / ".releases" / platform),
      link_(channel_ / ("." + platform + ".next-" + std::to_string(getpid()))) {}

ReleaseStore::~ReleaseStore() {
  if (current_) return;
  std::error_code ignored;
  fs::remove(link_, ignored);
  if (!folder_.empty()) fs::remove_all(folder_, ignored);
  // Only the holder of the lock may remove the folders: another run may be using them already.
  if (!lock_) return;
  if (!created_.empty()) fs::remove(lockPath(), ignored);
  for (const fs::path& folder : created_) fs::remove(folder, ignored);  // only while empty
}

bool ReleaseStore::inspect(Problems& problems) {
  std::error_code error;
  const fs::file_status status = fs::symlink_status(served_, error);
  if (fs::is_directory(status)) {
    takeOver_ = true;
  } else if (fs::exists(status) && !fs::is_symlink(status)) {
    problems.push_back(served_.string() + ": neither a folder nor a link; move it away first");
    return false;
  }
  // Without a readable manifest nothing is reused, and every file is copied.
  update::Manifest manifest;
  std::string unreadable;
  if (update::parseManifest(update::readTextFile(served_ / "manifest.json"), manifest,
                            unreadable)) {
    servedRelease_.take(manifest);
  }
  return true;
}

bool ReleaseStore::createReleasesFolder(Problems& problems) {
  std::error_code error;
  for (fs::path folder = releases_; !folder.empty() && !fs::exists(folder, error);
       folder = folder.parent_path()) {
    created_.push_back(folder);
    if (folder == folder.parent_path()) break;
  }
  fs::create_directories(releases_, error);
  if (error) problems.push_back(problemAt(releases_, "cannot be created", error));
  return !error;
}

bool ReleaseStore::lock(bool wait, Problems& problems) {
  for (;;) {
    if (!createReleasesFolder(problems)) return false;
    update::FileDescriptor file(
        ::open(lockPath().c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (file.get() < 0) {
      const std::error_code why(errno, std::generic_category());
      problems.push_back(problemAt(lockPath(), "cannot be opened", why));
      return false;
    }
    if (!takeLock(file.get(), wait, problems)) return false;
    // A publisher that failed removed the folders it had created, perhaps the very lock file this
    // run waited for: then it starts over with the file now at that place.
    struct stat locked;
    struct stat now;
    if (::fstat(file.get(), &locked) == 0 && ::stat(lockPath().c_str(), &now) == 0 &&
        locked.st_dev == now.st_dev && locked.st_ino == now.st_ino) {
      lock_.emplace(std::move(file));
      return true;
    }
  }
}

// An open file description lock: unlike flock, NFS passes it to the server, so that publishers
// on two machines sharing a server root exclude each other too.
bool ReleaseStore::takeLock(int file, bool wait, Problems& problems) {
  struct flock whole {};
  whole.l_type = F_WRLCK;
  whole.l_whence = SEEK_SET;
  if (::fcntl(file, F_OFD_SETLK, &whole) == 0) return true;
  const int why = errno;
  const std::string what = channel_.filename().string() + "/" + served_.filename().string();
  if (why != EAGAIN && why != EACCES) {
    problems.push_back(problemAt(lockPath(), "cannot be locked", {why, std::generic_category()}));
    return false;
  }
  if (!wait) {
    problems.push_back(releases_.string() + ": another release of " + what +
                       " is being published (--no-wait given)");
    return false;
  }
  std::fprintf(stderr, "tarn-hollow-publish: waiting for another release of %s to finish\n",
               what.c_str());
  int result;
  while ((result = ::fcntl(file, F_OFD_SETLKW, &whole)) != 0 && errno == EINTR) {
  }
  if (result != 0) problems.push_back(lockPath().string() + ": cannot be locked");
  return result == 0;
}

bool ReleaseStore::create(const std::string& version, Problems& problems) {
  std::error_code error;
  std::size_t sequence = nextSequence();
  if (takeOver_) takenOverName_ = releaseName(sequence++, "taken-over");
  const fs::path folder = releases_ / releaseName(sequence, version);
  if (!fs::create_directory(folder, error)) {
    problems.push_back(error ? problemAt(folder, "cannot be created", error)
                             : folder.string() + ": already exists");
    return false;
  }
  folder_ = folder;
  return true;
}

fs::path ReleaseStore::servedFile(const std::string& path) const {
  return served_ / "files" / path;
}

bool ReleaseStore::findKept(const std::string& version, fs::path& folder,
                            update::Manifest& manifest) const {
  std::error_code error;
  for (const auto& [sequence, kept] : releasesIn(releases_)) {
    std::string unreadable;
    if (fs::exists(kept / "manifest.sig", error) &&
        update::parseManifest(update::readTextFile(kept / "manifest.json"), manifest, unreadable) &&
        manifest.version == version) {
      folder = kept;
      return true;
    }
  }
  return false;
}

bool ReleaseStore::makeCurrent(Problems& problems) {
  if (!flushTree(folder_) || !update::flushToDisk(releases_)) {
    problems.push_back(folder_.string() + ": cannot be flushed to disk");
    return false;
  }
  std::error_code error;
  fs::remove(link_, error);  // left by a killed run that had this process ID
  fs::create_symlink(folder_.lexically_relative(channel_), link_, error);
  if (error) {
    problems.push_back(problemAt(link_, "cannot be created", error));
    return false;
  }
  if (!swapLinkIn(problems)) return false;
  current_ = true;
  update::flushToDisk(channel_);  // the rename itself; the release is current either way
  return true;
}

bool ReleaseStore::swapLinkIn(Problems& problems) {
  std::error_code error;
  if (!takeOver_) {
    fs::rename(link_, served_, error);
    if (error) problems.push_back(problemAt(served_, "cannot be replaced", error));
    return !error;
  }
  // A link cannot be renamed over a folder, but the two can swap places in one step.
  if (::renameat2(AT_FDCWD, link_.c_str(), AT_FDCWD, served_.c_str(), RENAME_EXCHANGE) != 0) {
    problems.push_back(problemAt(served_, "cannot be taken over",
                                 std::error_code(errno, std::generic_category())));
    return false;
  }
  // The old folder now stands at the link's temporary name; it joins the older releases.
  fs::rename(link_, releases_ / takenOverName_, error);
  return true;
}

std::vector<std::string> ReleaseStore::prune(std::size_t keep) {
  std::error_code error;
  const std::size_t current = sequenceOf(fs::read_symlink(served_, error).filename().string());
  std::size_t kept = 0;
  std::vector<std::string> removed;
  for (const auto& [sequence, folder] : releasesIn(releases_)) {
    // Under the lock no other run is filling a folder: one without its signature is what a
    // killed run left, never served. A finished one newer than the current one stays, to be made
    // current again.
    const bool finished = fs::exists(folder / "manifest.sig", error);
    if (fs::equivalent(served_, folder, error)) {
      ++kept;
      continue;
    }
    if (finished && (sequence > current || ++kept <= keep)) continue;
    fs::remove_all(folder, error);
    if (!error) removed.push_back(versionOf(folder) + (finished ? "" : " (unfinished)"));
  }
  return removed;
}

std::vector<std::string> ReleaseStore::keptVersions() const {
  std::vector<std::string> versions;
  std::error_code error;
  for (const auto& [sequence, folder] : releasesIn(releases_)) {
    if (fs::exists(folder / "manifest.sig", error)) versions.push_back(versionOf(folder));
  }
  return versions;
}

std::size_t ReleaseStore::nextSequence() const {
  const Releases releases = releasesIn(releases_);
  return releases.empty() ? 1 : releases.front().first + 1;
}

}  // namespace th::publish
