#include "update/disk_flush.h"

#include <fcntl.h>
#include <unistd.h>

#include "update/file_descriptor.h"

namespace th::update {
namespace {

// Read-only is enough: fsync flushes the inode whichever descriptor names it, and a folder can
// only be opened that way.
bool withDescriptor(const std::filesystem::path& path, int (*flush)(int)) {
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return file.get() >= 0 && flush(file.get()) == 0;
}

}  // namespace

bool flushToDisk(const std::filesystem::path& fileOrFolder) {
  return withDescriptor(fileOrFolder, ::fsync);
}

void flushFileSystem(const std::filesystem::path& path) { withDescriptor(path, ::syncfs); }

}  // namespace th::update
