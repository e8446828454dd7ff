#pragma once
// Fixed window geometry shared by drawing and hit-testing.

namespace {

constexpr int kWindowWidth = 1040;
constexpr int kWindowHeight = 640;
constexpr const char* kWindowTitle = "Tarn Hollow Launcher";
constexpr const char* kLauncherVersion = "1.2.1";
constexpr const char* kUpdateChannel = "stable";

struct Box {
  float x, y, w, h;
};

constexpr Box kRepairBox{720, 452, 126, 42};
constexpr Box kRefreshBox{854, 452, 126, 42};
constexpr Box kPlayBox{720, 515, 260, 62};

// Hit areas are the drawn boxes, edges included.
inline bool contains(const Box& box, float x, float y) {
  return x >= box.x && x <= box.x + box.w && y >= box.y && y <= box.y + box.h;
}

}  // namespace
