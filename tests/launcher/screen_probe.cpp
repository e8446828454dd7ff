#include "tests/launcher/screen_probe.h"

#include <algorithm>
#include <cmath>
#include <memory>

namespace th::test {

Image renderOffscreen(const std::function<void(SDL_Renderer*)>& draw) {
  std::unique_ptr<SDL_Surface, decltype(&SDL_DestroySurface)> surface(
      SDL_CreateSurface(1040, 640, SDL_PIXELFORMAT_XRGB8888), SDL_DestroySurface);
  {
    std::unique_ptr<SDL_Renderer, decltype(&SDL_DestroyRenderer)> renderer(
        SDL_CreateSoftwareRenderer(surface.get()), SDL_DestroyRenderer);
    SDL_SetRenderDrawColor(renderer.get(), 0, 0, 0, 255);
    SDL_RenderClear(renderer.get());
    draw(renderer.get());
    SDL_RenderPresent(renderer.get());
  }
  Image image{surface->w, surface->h, {}};
  for (int y = 0; y < surface->h; ++y) {
    for (int x = 0; x < surface->w; ++x) {
      Uint8 r = 0, g = 0, b = 0;
      SDL_ReadSurfacePixel(surface.get(), x, y, &r, &g, &b, nullptr);
      image.rgb.insert(image.rgb.end(), {r, g, b});
    }
  }
  return image;
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

int countColour(const Image& image, int x0, int y0, int x1, int y1, Rgb colour) {
  int count = 0;
  for (int y = std::max(0, y0); y < std::min(image.height, y1); ++y) {
    for (int x = std::max(0, x0); x < std::min(image.width, x1); ++x)
      count += image.at(x, y) == colour;
  }
  return count;
}

}  // namespace th::test
