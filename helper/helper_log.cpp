#include "helper/helper_log.h"

#include <chrono>
#include <ctime>
#include <fstream>
#include <system_error>

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
  std::ofstream out(file_, std::ios::binary | std::ios::app);
  out << utcTimestamp() << ' ' << step << '\n';
}

}  // namespace th::helper
