#pragma once
// What the player's clicks and keys do.

#include <SDL3/SDL.h>

#include <filesystem>
#include <mutex>
#include <string>
#include <utility>

#include "launcher/layout.h"
#include "launcher/process_launch.h"
#include "launcher/shared_state.h"
#include "launcher/update_job.h"
#include "update/platform.h"

namespace {

// All state of the UI thread, in one place.
struct LauncherUi {
  Shared& shared;
  std::filesystem::path installDir;
  bool elevated = false;
  std::string patchNotes;
  bool running = true;
};

// Starts the game; the PLAY button reports a missing or unstartable game, the Return key does not.
inline void playAction(LauncherUi& ui, bool reportErrors) {
  const std::filesystem::path gamePath = ui.installDir / th::update::gameBinaryName();
  const auto type = std::filesystem::status(gamePath).type();
  const bool present =
      type != std::filesystem::file_type::not_found && type != std::filesystem::file_type::none;
  if (present && launchProcess(gamePath)) {
    ui.running = false;
    return;
  }
  if (!reportErrors) return;
  std::lock_guard lock(ui.shared.mutex);
  ui.shared.state = JobState::Failed;
  ui.shared.status = "GAME EXECUTABLE MISSING";
  ui.shared.detail = gamePath.string();
}

inline bool mayPlay(const Snapshot& snap) { return !snap.busy && !snap.updateRequired; }

inline void handleClick(LauncherUi& ui, float x, float y) {
  const Snapshot snap = snapshot(ui.shared);
  if (contains(kPlayBox, x, y)) {
    if (mayPlay(snap)) playAction(ui, true);
  } else if (contains(kRepairBox, x, y)) {
    if (!snap.busy) beginUpdateJob(ui.shared, ui.installDir, kUpdateChannel, true, ui.elevated);
  } else if (contains(kRefreshBox, x, y)) {
    if (!snap.busy) beginUpdateJob(ui.shared, ui.installDir, kUpdateChannel, false, ui.elevated);
  }
}

inline void handleEvent(LauncherUi& ui, const SDL_Event& event) {
  switch (event.type) {
    case SDL_EVENT_QUIT:
      ui.running = false;
      break;
    case SDL_EVENT_MOUSE_BUTTON_DOWN:
      if (event.button.button == SDL_BUTTON_LEFT) handleClick(ui, event.button.x, event.button.y);
      break;
    case SDL_EVENT_KEY_DOWN:
      if (event.key.scancode == SDL_SCANCODE_RETURN && mayPlay(snapshot(ui.shared))) {
        playAction(ui, false);
      }
      break;
    default:
      break;
  }
}

}  // namespace
