// The demo game's window: its title text in SDL's debug font until the player closes it or
// presses a key. Usage: tarn-hollow-demo-window TEXT

#include <SDL3/SDL.h>

#include <memory>

namespace {

struct SdlSession {
  ~SdlSession() { SDL_Quit(); }
};
struct WindowDeleter {
  void operator()(SDL_Window* window) const { SDL_DestroyWindow(window); }
};
struct RendererDeleter {
  void operator()(SDL_Renderer* renderer) const { SDL_DestroyRenderer(renderer); }
};

bool playerQuit() {
  SDL_Event event;
  while (SDL_PollEvent(&event)) {
    if (event.type == SDL_EVENT_QUIT || event.type == SDL_EVENT_KEY_DOWN) return true;
  }
  return false;
}

void drawFrame(SDL_Renderer* renderer, const char* title) {
  SDL_SetRenderDrawColor(renderer, 18, 32, 40, 255);
  SDL_RenderClear(renderer);
  SDL_SetRenderScale(renderer, 3.0f, 3.0f);
  SDL_SetRenderDrawColor(renderer, 230, 200, 120, 255);
  SDL_RenderDebugText(renderer, 20, 40, title);
  SDL_SetRenderScale(renderer, 1.5f, 1.5f);
  SDL_SetRenderDrawColor(renderer, 200, 210, 220, 255);
  SDL_RenderDebugText(renderer, 40, 160, "DEMO GAME - PRESS ANY KEY TO QUIT");
  SDL_SetRenderScale(renderer, 1.0f, 1.0f);
  SDL_RenderPresent(renderer);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2 || !SDL_Init(SDL_INIT_VIDEO)) return 1;
  SdlSession session;
  std::unique_ptr<SDL_Window, WindowDeleter> window(SDL_CreateWindow("Tarn Hollow", 640, 360, 0));
  if (!window) return 2;
  std::unique_ptr<SDL_Renderer, RendererDeleter> renderer(
      SDL_CreateRenderer(window.get(), nullptr));
  if (!renderer) return 3;
  SDL_SetRenderVSync(renderer.get(), 1);
  while (!playerQuit()) {
    drawFrame(renderer.get(), argv[1]);
    SDL_Delay(16);
  }
  return 0;
}
