#include "helper/helper_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <system_error>

#include "update/file_descriptor.h"

namespace th::helper {
namespace {

std::string utcTimestamp() {
  const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm parts{};
  gmtime_r(&now, &parts);
  char text[32] = {};
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}

}  // namespace

void HelperLog::line(std::string_view step) const {
  std::error_code ignored;
  std::filesystem::create_directories(file_.parent_path(), ignored);
  // Never through a link planted in the work folder, and never into a program started later.
  update::FileDescriptor out(
      ::open(file_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_CLOEXEC, 0644));
  const std::string text = utcTimestamp() + ' ' + std::string(step) + '\n';
  if (out.get() < 0) return;
  [[maybe_unused]] const ssize_t written = ::write(out.get(), text.data(), text.size());
}

}  // namespace th::helper
