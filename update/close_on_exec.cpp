#include "update/close_on_exec.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstddef>

namespace th::update {
namespace {

constexpr int kFirstToClose = 3;

void markCloseOnExec(int fd) noexcept {
  if (fd >= kFirstToClose) fcntl(fd, F_SETFD, FD_CLOEXEC);
}

// A directory entry's name as a descriptor number; -1 for "." and "..".
int descriptorNamed(const char* name) noexcept {
  int fd = 0;
  if (*name == '\0') return -1;
  for (; *name != '\0'; ++name) {
    if (*name < '0' || *name > '9') return -1;
    fd = fd * 10 + (*name - '0');
  }
  return fd;
}

// Only the descriptors that are open, as /proc lists them: read with the raw system call into a
// buffer on the stack, since opendir allocates.
bool markListedDescriptors() noexcept {
  const int folder = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0) return false;
  alignas(dirent64) char buffer[4096];
  ssize_t got = 0;
  while ((got = getdents64(folder, buffer, sizeof buffer)) > 0) {
    for (ssize_t at = 0; at < got;) {
      const auto* entry = reinterpret_cast<const dirent64*>(buffer + at);
      markCloseOnExec(descriptorNamed(entry->d_name));
      at += entry->d_reclen;
    }
  }
  close(folder);
  return got == 0;
}

// Without /proc, every descriptor number the limit allows.
void markEveryPossibleDescriptor() noexcept {
  rlimit limit{};
  const rlim_t end = getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : 1024;
  for (rlim_t fd = kFirstToClose; fd < end && fd < (1U << 20); ++fd) {
    markCloseOnExec(static_cast<int>(fd));
  }
}

}  // namespace

// Kernels before 5.11 lack the flag; walking every number the limit allows took 1.5 s there
// with a limit of 2^20, so the fallback marks what /proc lists instead.
void keepOnlyStandardStreamsAcrossExec() noexcept {
  if (close_range(kFirstToClose, ~0U, CLOSE_RANGE_CLOEXEC) == 0) return;
  if (!markListedDescriptors()) markEveryPossibleDescriptor();
}

}  // namespace th::update
