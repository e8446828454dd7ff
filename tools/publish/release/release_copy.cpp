#include "tools/publish/release/release_copy.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "tools/publish/keys/keys.h"
#include "update/openssl_handles.h"

namespace th::publish {
namespace fs = std::filesystem;
namespace {

constexpr std::size_t kChunkBytes = 1 << 20;

std::string reason(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

bool writeAll(int fd, const char* data, std::size_t length) {
  while (length > 0) {
    const ssize_t written = ::write(fd, data, length);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    data += written;
    length -= static_cast<std::size_t>(written);
  }
  return true;
}

std::string hexDigest(EVP_MD_CTX* context) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_DigestFinal_ex(context, digest, &length) != 1) return {};
  return hexOf({digest, digest + length});
}

// Non-blocking, so that a pipe put in the file's place cannot stall the open.
constexpr int kReadFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

// A folder beneath `folder` by its own name, refused like openat2 refuses it: ELOOP for a link,
// EXDEV for a step up.
update::FileDescriptor openFolderIn(int folder, const std::string& name) {
  if (name == "..") {
    errno = EXDEV;
    return update::FileDescriptor(-1);
  }
  update::FileDescriptor opened(::openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (opened.get() >= 0 && ::fstat(opened.get(), &status) == 0 && !S_ISDIR(status.st_mode)) {
    errno = S_ISLNK(status.st_mode) ? ELOOP : ENOTDIR;
    return update::FileDescriptor(-1);
  }
  return opened;
}

// Element by element, each opened beneath the last without following a link: for kernels
// without openat2.
int openByWalk(int root, const std::string& relative) {
  update::FileDescriptor folder(::fcntl(root, F_DUPFD_CLOEXEC, 0));
  std::size_t start = 0;
  for (std::size_t slash; (slash = relative.find('/', start)) != std::string::npos;
       start = slash + 1) {
    update::FileDescriptor next = openFolderIn(folder.get(), relative.substr(start, slash - start));
    if (next.get() < 0) return -1;
    folder = std::move(next);
  }
  return ::openat(folder.get(), relative.c_str() + start, kReadFlags);
}

int openBeneath(int root, const std::string& relative) {
  open_how how{};
  how.flags = kReadFlags;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
  const long fd = ::syscall(SYS_openat2, root, relative.c_str(), &how, sizeof how);
  if (fd < 0 && errno == ENOSYS) return openByWalk(root, relative);
  return static_cast<int>(fd);
}

}  // namespace

ReleaseTree::ReleaseTree(const fs::path& root)
    : root_(::open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)), path_(root) {
  std::error_code error;
  const fs::path opened = fs::read_symlink("/proc/self/fd/" + std::to_string(root_.get()), error);
  if (root_.get() >= 0 && !error) path_ = opened;
}

bool ReleaseTree::openFile(const std::string& relative, std::optional<OpenedFile>& file,
                           std::string& problem) const {
  update::FileDescriptor fd(openBeneath(root_.get(), relative));
  struct stat status {};
  if (fd.get() < 0) {
    problem = errno == ELOOP || errno == EXDEV
                  ? "cannot be read: a symbolic link on its way (the release folder changed "
                    "after it was checked)"
                  : reason("cannot be read");
    return false;
  }
  if (::fstat(fd.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    problem = "not a regular file";
    return false;
  }
  file.emplace(OpenedFile{std::move(fd), static_cast<std::uint64_t>(status.st_size),
                          (status.st_mode & S_IXUSR) != 0});
  return true;
}

bool streamReleaseFile(const OpenedFile& file, const fs::path& place, std::string& digest,
                       std::uint64_t& size, std::string& problem) {
  update::FileDescriptor out(
      place.empty() ? -1 : ::open(place.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  update::DigestContext context(EVP_MD_CTX_new());
  if ((!place.empty() && out.get() < 0) || ::lseek(file.fd.get(), 0, SEEK_SET) != 0 || !context ||
      EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
    problem = reason("cannot be copied");
    return false;
  }
  std::vector<char> chunk(kChunkBytes);
  size = 0;
  for (;;) {
    const ssize_t got = ::read(file.fd.get(), chunk.data(), chunk.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      problem = reason("cannot be read");
      return false;
    }
    if (got == 0) break;
    EVP_DigestUpdate(context.get(), chunk.data(), static_cast<std::size_t>(got));
    if (out.get() >= 0 && !writeAll(out.get(), chunk.data(), static_cast<std::size_t>(got))) {
      problem = reason("cannot be copied");
      return false;
    }
    size += static_cast<std::uint64_t>(got);
  }
  digest = hexDigest(context.get());
  if (out.get() >= 0 && !out.close()) {
    problem = reason("cannot be copied");
    return false;
  }
  return !digest.empty();
}

}  // namespace th::publish
