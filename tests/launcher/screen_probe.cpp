#include "tests/launcher/screen_probe.h"

#include <SDL3_image/SDL_image.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <optional>

namespace th::test {
namespace {

namespace fs = std::filesystem;
using Surface = std::unique_ptr<SDL_Surface, decltype(&SDL_DestroySurface)>;

std::optional<Image> toImage(SDL_Surface* surface) {
  if (surface == nullptr) return std::nullopt;
  const Surface rgb(SDL_ConvertSurface(surface, SDL_PIXELFORMAT_RGB24), SDL_DestroySurface);
  Image image{rgb->w, rgb->h, {}};
  for (int y = 0; y < rgb->h; ++y) {
    const auto* row = static_cast<const std::uint8_t*>(rgb->pixels) + y * rgb->pitch;
    image.rgb.insert(image.rgb.end(), row, row + 3 * rgb->w);
  }
  return image;
}

bool savePng(Image image, const fs::path& path) {
  fs::create_directories(path.parent_path());
  const Surface surface(SDL_CreateSurfaceFrom(image.width, image.height, SDL_PIXELFORMAT_RGB24,
                                              image.rgb.data(), 3 * image.width),
                        SDL_DestroySurface);
  return surface && IMG_SavePNG(surface.get(), path.c_str());
}

fs::path referencePath(const std::string& state) {
  return fs::path(TH_FRAMES_DIR) / (state + ".png");
}

}  // namespace

Image renderOffscreen(const std::function<void(SDL_Renderer*)>& draw) {
  const Surface surface(SDL_CreateSurface(1040, 640, SDL_PIXELFORMAT_XRGB8888), SDL_DestroySurface);
  {
    std::unique_ptr<SDL_Renderer, decltype(&SDL_DestroyRenderer)> renderer(
        SDL_CreateSoftwareRenderer(surface.get()), SDL_DestroyRenderer);
    SDL_SetRenderDrawColor(renderer.get(), 0, 0, 0, 255);
    SDL_RenderClear(renderer.get());
    draw(renderer.get());
    SDL_RenderPresent(renderer.get());
  }
  return *toImage(surface.get());
}

std::string differenceFromReference(const Image& image, const std::string& state) {
  const Surface loaded(IMG_Load(referencePath(state).c_str()), SDL_DestroySurface);
  const std::optional<Image> reference = toImage(loaded.get());
  const bool sameSize =
      reference && reference->width == image.width && reference->height == image.height;
  Image difference = image;
  int differing = 0;
  for (std::size_t i = 0; i < image.rgb.size(); i += 3) {
    const auto pixel = image.rgb.begin() + static_cast<std::ptrdiff_t>(i);
    const bool same = sameSize && std::equal(pixel, pixel + 3, reference->rgb.begin() + i);
    differing += !same;
    for (std::size_t c = 0; c < 3; ++c) {
      difference.rgb[i + c] = same ? image.rgb[i + c] / 3 : (c == 0 ? 255 : 0);
    }
  }
  const fs::path out = TH_FRAMES_OUT, frame = out / (state + ".png"),
                 marked = out / (state + "-difference.png");
  if (differing == 0) {  // nothing stale left from an earlier run
    fs::remove(frame);
    fs::remove(marked);
    return "";
  }
  savePng(image, frame);
  savePng(difference, marked);
  return "state " + state + ": " + std::to_string(differing) + " pixels differ from " +
         referencePath(state).string() + (reference ? "" : " (missing or unreadable)") +
         "; the new frame and the difference are in " + out.string();
}

void writeReference(const Image& image, const std::string& state) {
  savePng(image, referencePath(state));
}

bool showsText(const Image& image, float x, float y, const std::string& text, float scale,
               Rgb colour) {
  // The font's own rendering of the text, white on black, drawn the way the launcher draws text.
  const Image reference = renderOffscreen([&](SDL_Renderer* renderer) {
    SDL_SetRenderDrawColor(renderer, 255, 255, 255, 255);
    SDL_SetRenderScale(renderer, scale, scale);
    SDL_RenderDebugText(renderer, x / scale, y / scale, text.c_str());
  });
  const float cell = 8 * scale;
  const int x1 = std::min(image.width, static_cast<int>(std::ceil(x + cell * (text.size() + 1))));
  const int y1 = std::min(image.height, static_cast<int>(std::ceil(y + cell)));
  for (int py = static_cast<int>(y); py < y1; ++py) {
    for (int px = static_cast<int>(x); px < x1; ++px) {
      if ((image.at(px, py) == colour) != (reference.at(px, py) == Rgb{255, 255, 255}))
        return false;
    }
  }
  return true;
}

}  // namespace th::test
