#include "tools/publish/release_copy.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "tools/publish/keys.h"
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

}  // namespace

bool openReleaseFile(const fs::path& source, std::optional<OpenedFile>& file,
                     std::string& problem) {
  // Non-blocking, so that a pipe put in the file's place cannot stall the open.
  update::FileDescriptor fd(::open(source.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (fd.get() < 0) {
    problem = reason("cannot be read");
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
