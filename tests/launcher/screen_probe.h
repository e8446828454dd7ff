#pragma once
// Reading the launcher's screen: off-screen frames from SDL's software renderer, whole frames
// against the committed reference of each screen state, and checks of debug-font text at a known
// place, size and colour in any image (frames or screenshots).

#include <SDL3/SDL.h>

#include <functional>
#include <string>

#include "tests/support/xvfb.h"

namespace th::test {

// Colours of the launcher's screen, for waiting on a state in a real window.
constexpr Rgb kStatusNormal{183, 224, 205};
constexpr Rgb kStatusUnavailable{242, 190, 110};
constexpr Rgb kStatusFailed{255, 104, 92};
constexpr Rgb kDetail{143, 163, 158};
constexpr Rgb kSmallLabel{225, 235, 232};

// Draws into a fresh 1040x640 software-rendered surface and returns its pixels.
Image renderOffscreen(const std::function<void(SDL_Renderer*)>& draw);

// Empty when `image` equals the reference frame tests/launcher/frames/<state>.png pixel for
// pixel. Otherwise writes the new frame and a difference image (differing pixels red over a
// dimmed copy) to the build's frames-differ folder and says which state, how many pixels, where.
std::string differenceFromReference(const Image& image, const std::string& state);

// Makes `image` the reference frame of `state`.
void writeReference(const Image& image, const std::string& state);

// True when `image` shows exactly `text` at (x, y) and `scale` in `colour`: the font's pixels in
// that colour, no other pixel of the text's cells and the cell after it.
bool showsText(const Image& image, float x, float y, const std::string& text, float scale,
               Rgb colour);

}  // namespace th::test
