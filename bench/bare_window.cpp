// The start-up figure's peer: the least a program can do to show the launcher's window with
// the same SDL build -- open it, clear it, present one frame.
#include <SDL3/SDL.h>

#include "bench/first_frame.h"

int main() {
  th::bench::stamp("exec, libraries");
  if (!SDL_Init(SDL_INIT_VIDEO)) return 1;
  SDL_Window* window = SDL_CreateWindow("Tarn Hollow Launcher", 1040, 640, 0);
  SDL_Renderer* renderer = window != nullptr ? SDL_CreateRenderer(window, nullptr) : nullptr;
  if (renderer == nullptr) return 2;
  SDL_SetRenderVSync(renderer, 1);
  th::bench::stamp("SDL, window, renderer");
  SDL_SetRenderDrawColor(renderer, 0, 0, 0, 255);
  SDL_RenderClear(renderer);
  th::bench::stamp("first draw");
  th::bench::reportFirstFrameAndExit(SDL_RenderPresent(renderer));
}
