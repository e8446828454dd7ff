#pragma once
// A real file system on a loop device, for the tests of what a disk does to an update.

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/system.h"

namespace th::test {

// An image that `steps` make (each given its path last), in memory where it can be, on a loop
// device of its own and mounted; undone at scope end (lazily: a relaunched launcher may run).
class MountedImage {
 public:
  MountedImage(std::vector<std::vector<std::string>> steps, const std::string& type,
               const std::string& options);
  ~MountedImage();
  MountedImage(const MountedImage&) = delete;
  MountedImage& operator=(const MountedImage&) = delete;

  std::filesystem::path image() const { return dir_ / "image"; }
  std::filesystem::path root() const { return dir_ / "mnt"; }
  const std::string& problem() const { return problem_; }

 private:
  TempDir dir_{std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : ""};
  std::string device_, problem_;
};

}  // namespace th::test
