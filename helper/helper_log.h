#pragma once
// One line per step in the install's update work folder, so that a failed self-update can be
// diagnosed after the fact: the helper has no window and nobody reads its terminal.

#include <filesystem>
#include <string_view>

namespace th::helper {

class HelperLog {
 public:
  explicit HelperLog(std::filesystem::path file) : file_(std::move(file)) {}
  // Appends "<UTC time> <step>"; a log that cannot be written is not a reason to stop.
  void line(std::string_view step) const;

 private:
  std::filesystem::path file_;
};

}  // namespace th::helper
