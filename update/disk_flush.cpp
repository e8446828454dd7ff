#include "update/disk_flush.h"

#include <fcntl.h>
#include <unistd.h>

namespace th::update {
namespace {

// Read-only is enough: fsync flushes the inode whichever descriptor names it, and a folder can
// only be opened that way.
void withDescriptor(const std::filesystem::path& path, int (*flush)(int)) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  flush(fd);
  ::close(fd);
}

}  // namespace

void flushToDisk(const std::filesystem::path& fileOrFolder) {
  withDescriptor(fileOrFolder, ::fsync);
}

void flushFileSystem(const std::filesystem::path& path) { withDescriptor(path, ::syncfs); }

}  // namespace th::update
