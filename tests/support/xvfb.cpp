#include "tests/support/xvfb.h"

#include <X11/Xlib.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace th::test {
namespace {

struct DisplayCloser {
  void operator()(Display* display) const { XCloseDisplay(display); }
};

// Parses binary PPM (P6, maxval 255), which `import` writes on request.
std::optional<Image> parsePpm(const std::string& bytes) {
  int width = 0, height = 0, header = 0;
  std::sscanf(bytes.c_str(), "P6 %d %d 255%n", &width, &height, &header);
  const size_t size = static_cast<size_t>(width) * height * 3;
  if (header == 0 || width <= 0 || height <= 0 || bytes.size() < header + 1 + size) return {};
  const auto* pixels = reinterpret_cast<const std::uint8_t*>(bytes.data()) + header + 1;
  return Image{width, height, std::vector<std::uint8_t>(pixels, pixels + size)};
}

}  // namespace

Rgb Image::at(int x, int y) const {
  const size_t i = (static_cast<size_t>(y) * width + x) * 3;
  return {rgb[i], rgb[i + 1], rgb[i + 2]};
}

XvfbDisplay::XvfbDisplay() {
  // Xvfb writes the free display it picked once it accepts connections. -noreset: without it the
  // server briefly refuses connections whenever its last client leaves.
  server_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"/usr/bin/Xvfb", "-displayfd", "1", "-noreset", "-nolisten", "tcp",
                               "-screen", "0", "1280x800x24"});
  waitUntil([&] { return server_->out().find('\n') != std::string::npos || !server_->running(); },
            std::chrono::seconds(10));
  name_ = ":" + server_->out().substr(0, server_->out().find('\n'));
  if (name_ == ":" || !server_->running()) server_.reset();
}

XvfbDisplay::~XvfbDisplay() = default;

ProcessOptions XvfbDisplay::optionsFor(ProcessOptions options) const {
  options.env["DISPLAY"] = name_;
  options.env["SDL_VIDEO_DRIVER"] = "x11";
  options.env["SDL_RENDER_DRIVER"] = "software";
  // SDL unloads the X11 libraries at exit: what they hold shows as leaks with no symbols.
  const char* asan = std::getenv("ASAN_OPTIONS");
  options.env["ASAN_OPTIONS"] = std::string(asan != nullptr ? asan : "") + ":detect_leaks=0";
  return options;
}

ProcessResult XvfbDisplay::tool(const std::vector<std::string>& argv) const {
  ProcessOptions options;
  options.env["DISPLAY"] = name_;
  options.timeout = std::chrono::seconds(20);
  return runProcess(argv, options);
}

std::optional<std::string> XvfbDisplay::waitForWindow(const std::string& title,
                                                      std::chrono::milliseconds timeout,
                                                      pid_t owner) const {
  std::vector<std::string> search{"/usr/bin/xdotool", "search", "--onlyvisible"};
  if (owner > 0) search.insert(search.end(), {"--pid", std::to_string(owner)});
  search.insert(search.end(), {"--name", "^" + title + "$"});
  std::string found;
  waitUntil(
      [&] {
        const std::string out = tool(search).out;
        return !(found = out.substr(0, out.find('\n'))).empty();
      },
      timeout);
  return found.empty() ? std::nullopt : std::optional(found);
}

bool XvfbDisplay::xdotool(std::vector<std::string> args) const {
  args.insert(args.begin(), "/usr/bin/xdotool");
  return tool(args).exitCode == 0;
}

bool XvfbDisplay::requestClose(const std::string& window) const {
  // A window just gone (SDL replaces its first one) fails the call instead of ending the test.
  static bool failed;
  failed = false;
  XSetErrorHandler([](Display*, XErrorEvent*) { return (failed = true), 0; });
  std::unique_ptr<Display, DisplayCloser> display(XOpenDisplay(name_.c_str()));
  if (!display) return false;
  XEvent event;
  std::memset(&event, 0, sizeof event);
  event.xclient.type = ClientMessage;
  event.xclient.window = std::stoul(window);
  event.xclient.message_type = XInternAtom(display.get(), "WM_PROTOCOLS", False);
  event.xclient.format = 32;
  event.xclient.data.l[0] =
      static_cast<long>(XInternAtom(display.get(), "WM_DELETE_WINDOW", False));
  event.xclient.data.l[1] = CurrentTime;
  const Status sent = XSendEvent(display.get(), event.xclient.window, False, NoEventMask, &event);
  XSync(display.get(), False);
  return sent != 0 && !failed;
}

std::optional<Image> XvfbDisplay::screenshot(const std::string& window) const {
  // ImageMagick's default depth may be 16 bits per sample; the parser reads 8.
  ProcessResult r = tool({"/usr/bin/import", "-window", window, "-depth", "8", "ppm:-"});
  if (r.exitCode != 0) return std::nullopt;
  return parsePpm(r.out);
}

}  // namespace th::test
