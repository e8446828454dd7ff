#include "tests/launcher/screen_probe.h"

#include <algorithm>
#include <cmath>
#include <memory>

namespace th::test {
namespace {

struct SurfaceDeleter {
  void operator()(SDL_Surface* surface) const { SDL_DestroySurface(surface); }
};
struct RendererDeleter {
  void operator()(SDL_Renderer* renderer) const { SDL_DestroyRenderer(renderer); }
};

Image surfaceImage(SDL_Surface* surface) {
  Image image{surface->w, surface->h, {}};
  image.rgb.reserve(static_cast<size_t>(surface->w) * surface->h * 3);
  for (int y = 0; y < surface->h; ++y) {
    for (int x = 0; x < surface->w; ++x) {
      Uint8 r = 0, g = 0, b = 0;
      SDL_ReadSurfacePixel(surface, x, y, &r, &g, &b, nullptr);
      image.rgb.insert(image.rgb.end(), {r, g, b});
    }
  }
  return image;
}

constexpr Rgb kLit{255, 255, 255};

// The font's own rendering of the text, white on black, drawn the way the launcher draws text.
Image referenceText(float x, float y, const std::string& text, float scale) {
  return renderOffscreen([&](SDL_Renderer* renderer) {
    SDL_SetRenderDrawColor(renderer, 255, 255, 255, 255);
    SDL_SetRenderScale(renderer, scale, scale);
    SDL_RenderDebugText(renderer, x / scale, y / scale, text.c_str());
  });
}

}  // namespace

Image renderOffscreen(const std::function<void(SDL_Renderer*)>& draw) {
  std::unique_ptr<SDL_Surface, SurfaceDeleter> surface(
      SDL_CreateSurface(1040, 640, SDL_PIXELFORMAT_XRGB8888));
  {
    std::unique_ptr<SDL_Renderer, RendererDeleter> renderer(
        SDL_CreateSoftwareRenderer(surface.get()));
    SDL_SetRenderDrawColor(renderer.get(), 0, 0, 0, 255);
    SDL_RenderClear(renderer.get());
    draw(renderer.get());
    SDL_RenderPresent(renderer.get());
  }
  return surfaceImage(surface.get());
}

bool showsText(const Image& image, float x, float y, const std::string& text, float scale,
               Rgb colour) {
  const Image reference = referenceText(x, y, text, scale);
  const float cell = 8 * scale;
  const int x0 = static_cast<int>(std::floor(x));
  const int y0 = static_cast<int>(std::floor(y));
  const int x1 = std::min(image.width, static_cast<int>(std::ceil(x + cell * (text.size() + 1))));
  const int y1 = std::min(image.height, static_cast<int>(std::ceil(y + cell)));
  for (int py = y0; py < y1; ++py) {
    for (int px = x0; px < x1; ++px) {
      const bool lit = reference.at(px, py) == kLit;
      if ((image.at(px, py) == colour) != lit) return false;
    }
  }
  return true;
}

int countColour(const Image& image, int x0, int y0, int x1, int y1, Rgb colour) {
  int count = 0;
  for (int y = std::max(0, y0); y < std::min(image.height, y1); ++y) {
    for (int x = std::max(0, x0); x < std::min(image.width, x1); ++x) {
      if (image.at(x, y) == colour) ++count;
    }
  }
  return count;
}

}  // namespace th::test
