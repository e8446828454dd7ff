#include "tests/support/mounted_image.h"

#include <sys/mount.h>

#include <cerrno>
#include <cstring>

namespace th::test {

MountedImage::MountedImage(std::vector<std::vector<std::string>> steps, const std::string& type,
                           const std::string& options) {
  if (!std::filesystem::exists("/dev/loop-control"))
    problem_ = "no loop devices: run as root, load `loop`";
  steps.push_back({"/usr/sbin/losetup", "--find", "--show"});
  for (std::vector<std::string>& step : steps) {
    step.push_back(image().string());
    const ProcessResult done = problem_.empty() ? runProcess(step) : ProcessResult{};
    if (problem_.empty() && done.exitCode != 0) problem_ = step[0] + ": " + done.err;
    device_ = done.out.substr(0, done.out.find('\n'));  // the last is losetup's answer
  }
  std::filesystem::create_directories(root());
  if (problem_.empty() &&
      ::mount(device_.c_str(), root().c_str(), type.c_str(), 0, options.c_str()) != 0)
    problem_ = "mount -t " + type + " -o '" + options + "': " + std::strerror(errno);
}

MountedImage::~MountedImage() {
  if (::umount2(root().c_str(), 0) != 0) ::umount2(root().c_str(), MNT_DETACH);
  if (!device_.empty()) runProcess({"/usr/sbin/losetup", "--detach", device_});
}

}  // namespace th::test
