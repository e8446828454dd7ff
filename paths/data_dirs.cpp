#include "paths/data_dirs.h"

#include <cstdlib>
#include <system_error>

namespace th {
namespace {

// The variable's value when it is set and not empty.
const char* nonEmptyEnv(const char* name) {
  const char* value = std::getenv(name);
  return (value != nullptr && *value != '\0') ? value : nullptr;
}

}  // namespace

std::filesystem::path installDir() {
  std::error_code error;
  std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", error);
  if (!error && !exe.empty()) return exe.parent_path();
  return std::filesystem::current_path();
}

std::filesystem::path userDataDir() {
  if (const char* xdg = nonEmptyEnv("XDG_DATA_HOME"))
    return std::filesystem::path(xdg) / "tarn-hollow";
  if (const char* home = nonEmptyEnv("HOME")) {
    return std::filesystem::path(home) / ".local" / "share" / "tarn-hollow";
  }
  return installDir() / "userdata";
}

std::filesystem::path userSaveDir() { return userDataDir() / "saves"; }

}  // namespace th
