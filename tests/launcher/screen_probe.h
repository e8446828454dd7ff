#pragma once
// Reading the launcher's screen: off-screen frames from SDL's software renderer, and checks of
// debug-font text at a known place, size and colour in any image (frames or screenshots).

#include <SDL3/SDL.h>

#include <functional>
#include <string>

#include "tests/support/xvfb.h"

namespace th::test {

// Colours of the launcher's screen that tests look for.
constexpr Rgb kStatusNormal{183, 224, 205};
constexpr Rgb kStatusUnavailable{242, 190, 110};
constexpr Rgb kStatusFailed{255, 104, 92};
constexpr Rgb kDetail{143, 163, 158};
constexpr Rgb kBarFill{192, 53, 43};
constexpr Rgb kBarLabel{178, 195, 189};
constexpr Rgb kNotesBody{166, 187, 181};
constexpr Rgb kPlayBox{157, 38, 31};
constexpr Rgb kRequiredBox{111, 35, 31};
constexpr Rgb kSmallLabel{225, 235, 232};

// Draws into a fresh 1040x640 software-rendered surface and returns its pixels.
Image renderOffscreen(const std::function<void(SDL_Renderer*)>& draw);

// True when `image` shows exactly `text` at (x, y) and `scale` in `colour`: the font's pixels in
// that colour, no other pixel of the text's cells and the cell after it.
bool showsText(const Image& image, float x, float y, const std::string& text, float scale,
               Rgb colour);

// Pixels of `colour` inside a rectangle (edges included in x and y ranges [x0, x1), [y0, y1)).
int countColour(const Image& image, int x0, int y0, int x1, int y1, Rgb colour);

}  // namespace th::test
