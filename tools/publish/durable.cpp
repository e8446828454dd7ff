#include "tools/publish/durable.h"

#include <fcntl.h>
#include <unistd.h>

#include <system_error>

namespace th::publish {
namespace {

class Descriptor {
 public:
  explicit Descriptor(const std::filesystem::path& path)
      : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW)) {}
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return fd_; }

 private:
  int fd_;
};

}  // namespace

bool syncPath(const std::filesystem::path& path) {
  const Descriptor file(path);
  return file.get() >= 0 && ::fsync(file.get()) == 0;
}

bool syncTree(const std::filesystem::path& folder) {
  namespace fs = std::filesystem;
  std::error_code error;
  bool synced = true;
  fs::recursive_directory_iterator walk(folder, error), end;
  for (; !error && walk != end; walk.increment(error)) synced = syncPath(walk->path()) && synced;
  return !error && syncPath(folder) && synced;
}

}  // namespace th::publish
