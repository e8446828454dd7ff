#pragma once
// The launcher's single screen, drawn from scratch every frame from one snapshot. Every position
// is fixed in window pixels; nothing is measured or centred at run time.

#include <SDL3/SDL.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "launcher/layout.h"
#include "launcher/patch_notes.h"
#include "launcher/shared_state.h"
#include "launcher/text_wrap.h"
#include "launcher/version_marker.h"

namespace {

struct Colour {
  std::uint8_t r, g, b;
};

// One line of debug-font text with its top-left corner at (x, y) in unscaled window pixels.
inline void text(SDL_Renderer* renderer, float x, float y, const std::string& str, float scale,
                 std::uint8_t r, std::uint8_t g, std::uint8_t b) {
  SDL_SetRenderDrawColor(renderer, r, g, b, 255);
  SDL_SetRenderScale(renderer, scale, scale);
  SDL_RenderDebugText(renderer, x / scale, y / scale, str.c_str());
  SDL_SetRenderScale(renderer, 1.0f, 1.0f);
}

inline void text(SDL_Renderer* renderer, float x, float y, const std::string& str, float scale,
                 Colour c) {
  text(renderer, x, y, str, scale, c.r, c.g, c.b);
}

inline void fillRect(SDL_Renderer* renderer, const Box& box, Colour c) {
  SDL_SetRenderDrawColor(renderer, c.r, c.g, c.b, 255);
  const SDL_FRect rect{box.x, box.y, box.w, box.h};
  SDL_RenderFillRect(renderer, &rect);
}

inline void drawBackground(SDL_Renderer* renderer) {
  SDL_SetRenderDrawColor(renderer, 4, 7, 9, 255);
  SDL_RenderClear(renderer);
  fillRect(renderer, {0, 0, 1040, 640}, {5, 8, 11});
  fillRect(renderer, {0, 0, 688, 640}, {8, 13, 17});
  fillRect(renderer, {688, 0, 352, 640}, {7, 11, 14});
  fillRect(renderer, {28, 28, 632, 584}, {12, 19, 24});
  fillRect(renderer, {44, 44, 600, 552}, {17, 26, 31});
}

inline const std::string& patchNotesSource(const Snapshot& snap, const std::string& localNotes) {
  return snap.releaseNotes.size() >= kMinServerNotesLength ? snap.releaseNotes : localNotes;
}

inline void drawPatchNotes(SDL_Renderer* renderer, const Snapshot& snap,
                           const std::string& localNotes, const std::filesystem::path& installDir) {
  text(renderer, 58, 64, "TARN HOLLOW", 2.45f, {225, 61, 48});
  text(renderer, 60, 104, "HOLD OR FALL // ONLINE WORLD", 0.92f, {166, 187, 181});
  text(renderer, 60, 145, "PATCH NOTES // v" + localVersion(installDir), 1.25f, {232, 236, 226});
  fillRect(renderer, {58, 174, 570, 1}, {72, 110, 101});
  float y = 193;
  for (const std::string& line : wrappedLines(patchNotesSource(snap, localNotes), 74, 18)) {
    const Colour colour = isSectionHeading(line) ? Colour{221, 196, 118} : Colour{166, 187, 181};
    text(renderer, 60, y, line, 0.78f, colour);
    y += 20;
  }
  text(renderer, 60, 566, "PATCH NOTES ARE BUNDLED WITH EVERY RELEASE", 0.72f, {105, 139, 132});
}

inline Colour statusColour(JobState state) {
  if (state == JobState::Failed) return {255, 104, 92};
  if (state == JobState::ServiceUnavailable) return {242, 190, 110};
  return {183, 224, 205};
}

inline void drawStatus(SDL_Renderer* renderer, const Snapshot& snap,
                       const std::filesystem::path& installDir) {
  text(renderer, 720, 72, "GAME STATUS", 1.45f, {226, 236, 232});
  text(renderer, 720, 118, snap.status, 1.02f, statusColour(snap.state));
  if (!snap.detail.empty()) {
    const std::vector<std::string> lines = wrappedLines(snap.detail, 38, 4);
    for (std::size_t i = 0; i < lines.size(); ++i) {
      text(renderer, 720, 154 + 17 * static_cast<float>(i), lines[i], 0.72f, {143, 163, 158});
    }
  }
  text(renderer, 720, 245, "INSTALLED", 0.76f, {113, 144, 137});
  text(renderer, 820, 245, localVersion(installDir), 0.82f, {218, 229, 224});
  text(renderer, 720, 270, "LATEST", 0.76f, {113, 144, 137});
  const std::string latest = snap.latestVersion.empty() ? "CHECKING" : snap.latestVersion;
  text(renderer, 820, 270, latest, 0.82f, {218, 229, 224});
}

// Fraction of the bar to fill; a done count above the total shows a full bar.
inline float progressFraction(std::uint64_t done, std::uint64_t total) {
  return std::min(static_cast<float>(done) / static_cast<float>(total), 1.0f);
}

inline void drawProgressBar(SDL_Renderer* renderer, const Snapshot& snap) {
  const float fraction = progressFraction(snap.progressDone, snap.progressTotal);
  fillRect(renderer, {720, 322, 260, 10}, {31, 43, 50});
  fillRect(renderer, {720, 322, 260 * fraction, 10}, {192, 53, 43});
  const int percent = static_cast<int>(fraction * 100.0f);
  text(renderer, 720, 342, "UPDATE " + std::to_string(percent) + "%", 0.82f, {178, 195, 189});
}

inline void drawProgressOrChannel(SDL_Renderer* renderer, const Snapshot& snap) {
  if (snap.progressTotal != 0) {
    drawProgressBar(renderer, snap);
  } else if (snap.updateAvailable) {
    text(renderer, 720, 342, "UPDATE AVAILABLE", 0.72f, {225, 175, 83});
  } else {
    text(renderer, 720, 342, "SIGNED UPDATE CHANNEL // STABLE", 0.72f, {121, 155, 148});
  }
}

inline void drawMainButton(SDL_Renderer* renderer, const Snapshot& snap) {
  if (snap.updateRequired) {
    fillRect(renderer, kPlayBox, {111, 35, 31});
    text(renderer, 750, 535, "UPDATE REQUIRED", 1.25f, {255, 230, 216});
  } else if (snap.busy) {
    fillRect(renderer, kPlayBox, {38, 48, 54});
    text(renderer, 790, 535, "PLEASE WAIT", 1.25f, {212, 222, 220});
  } else {
    fillRect(renderer, kPlayBox, {157, 38, 31});
    text(renderer, 818, 533, "PLAY", 1.65f, {255, 244, 226});
  }
}

inline void drawButtons(SDL_Renderer* renderer, const Snapshot& snap) {
  constexpr Colour kSmallBox{31, 45, 54};
  constexpr Colour kSmallLabel{225, 235, 232};
  fillRect(renderer, kRepairBox, kSmallBox);
  text(renderer, 736, 466, "REPAIR", 0.95f, kSmallLabel);
  fillRect(renderer, kRefreshBox, kSmallBox);
  text(renderer, 870, 466, snap.busy ? "WAIT" : "REFRESH", 0.95f, kSmallLabel);
  drawMainButton(renderer, snap);
}

inline void drawFrame(SDL_Renderer* renderer, const Snapshot& snap, const std::string& notes,
                      const std::filesystem::path& installDir) {
  drawBackground(renderer);
  drawPatchNotes(renderer, snap, notes, installDir);
  drawStatus(renderer, snap, installDir);
  drawProgressOrChannel(renderer, snap);
  drawButtons(renderer, snap);
  text(renderer, 720, 594, std::string("ENTER = PLAY // LAUNCHER v") + kLauncherVersion, 0.72f,
       {137, 163, 159});
}

}  // namespace
