// Linked only into the bench build of the launcher, with -Wl,--wrap=SDL_RenderPresent: the
// launcher's first present reports the time and ends the process, so the shipped launcher needs
// no hook of its own.
#include <SDL3/SDL.h>

#include "bench/first_frame.h"

extern "C" bool __real_SDL_RenderPresent(SDL_Renderer* renderer);

extern "C" bool __wrap_SDL_RenderPresent(SDL_Renderer* renderer) {
  th::bench::reportFirstFrameAndExit(__real_SDL_RenderPresent(renderer));
}
