#pragma once
// The launcher's single screen, drawn from scratch every frame from one snapshot.

#include <SDL3/SDL.h>

#include <filesystem>
#include <string>

#include "launcher/shared_state.h"

namespace {

inline void drawFrame(SDL_Renderer* renderer, const Snapshot& snap, const std::string& notes,
                      const std::filesystem::path& installDir) {
  (void)snap, (void)notes, (void)installDir;
  SDL_SetRenderDrawColor(renderer, 4, 7, 9, 255);
  SDL_RenderClear(renderer);
}

}  // namespace
