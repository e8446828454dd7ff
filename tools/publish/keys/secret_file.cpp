#include "tools/publish/keys/secret_file.h"

#include <fcntl.h>
#include <openssl/crypto.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "update/file_descriptor.h"

namespace th::publish {

bool readSecretFile(const std::filesystem::path& file, std::string& bytes, mode_t& mode,
                    std::string& problem) {
  // Non-blocking, so that a pipe in the file's place cannot stall the open.
  const update::FileDescriptor fd(::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  if (fd.get() < 0 || ::fstat(fd.get(), &status) != 0) {
    problem = std::string("cannot be read: ") + std::strerror(errno);
    return false;
  }
  if (!S_ISREG(status.st_mode)) {
    problem = "not a regular file";
    return false;
  }
  // Reserved whole up front: a string that grows leaves copies of its bytes behind.
  wipe(bytes);
  bytes.reserve(static_cast<std::size_t>(status.st_size) + 1);
  std::array<char, 4096> chunk;
  ssize_t got = 0;
  while ((got = ::read(fd.get(), chunk.data(), chunk.size())) > 0 || (got < 0 && errno == EINTR)) {
    if (got > 0) bytes.append(chunk.data(), static_cast<std::size_t>(got));
  }
  OPENSSL_cleanse(chunk.data(), chunk.size());
  if (got < 0) {
    problem = std::string("cannot be read: ") + std::strerror(errno);
    wipe(bytes);
    return false;
  }
  mode = status.st_mode & 07777;
  return true;
}

void wipe(std::string& text) {
  OPENSSL_cleanse(text.data(), text.size());
  text.clear();
}

}  // namespace th::publish
