#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/system.h"

namespace th::test {

struct Rgb {
  std::uint8_t r = 0, g = 0, b = 0;
  bool operator==(const Rgb&) const = default;
};

struct Image {
  int width = 0, height = 0;
  std::vector<std::uint8_t> rgb;  // row-major, 3 bytes per pixel
  Rgb at(int x, int y) const;
};

// A private Xvfb, stopped at scope end; windows found, driven and photographed with xdotool and
// ImageMagick's `import`.
class XvfbDisplay {
 public:
  XvfbDisplay();
  ~XvfbDisplay();

  bool ok() const { return server_ != nullptr; }
  // Runs a program on this display with SDL's deterministic software renderer.
  ProcessOptions optionsFor(ProcessOptions options = {}) const;
  // The first visible window with exactly this title, of process `owner` if given.
  std::optional<std::string> waitForWindow(const std::string& title,
                                           std::chrono::milliseconds timeout,
                                           pid_t owner = 0) const;
  bool click(const std::string& window, int x, int y) const {
    return xdotool(
        {"mousemove", "--window", window, std::to_string(x), std::to_string(y), "click", "1"});
  }
  bool key(const std::string& window, const std::string& name) const {
    return xdotool({"key", "--window", window, name});
  }
  // What a window manager's close button sends (WM_DELETE_WINDOW).
  bool requestClose(const std::string& window) const;
  std::optional<Image> screenshot(const std::string& window) const;

 private:
  ProcessResult tool(const std::vector<std::string>& argv) const;
  bool xdotool(std::vector<std::string> args) const;

  std::string name_;
  std::unique_ptr<ChildProcess> server_;
};

}  // namespace th::test
