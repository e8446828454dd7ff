// Linked only into the bench build of the launcher, with -Wl,--wrap for the calls below: the
// launcher's start-up is stamped phase by phase on its main thread, and its first present
// reports the times and ends the process, so the shipped launcher needs no hook of its own.
#include <SDL3/SDL.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "bench/first_frame.h"

namespace {

bool onMainThread() { return ::syscall(SYS_gettid) == ::getpid(); }

// The phases after the save migration are told apart by the first of their calls.
bool readTheMarker = false, clearedOnce = false, wroteText = false;

}  // namespace

std::filesystem::path realInstallDir() asm("__real__ZN2th10installDirB5cxx11Ev");
std::filesystem::path wrapInstallDir() asm("__wrap__ZN2th10installDirB5cxx11Ev");
void realMigrate() asm("__real__ZN2th22migrateLegacySaveFilesEv");
void wrapMigrate() asm("__wrap__ZN2th22migrateLegacySaveFilesEv");
std::string realReadText(const std::filesystem::path&) asm(
    "__real__ZN2th6update12readTextFileERKNSt10filesystem7__cxx114pathE");
std::string wrapReadText(const std::filesystem::path&) asm(
    "__wrap__ZN2th6update12readTextFileERKNSt10filesystem7__cxx114pathE");

std::filesystem::path wrapInstallDir() {
  std::filesystem::path folder = realInstallDir();
  static bool first = true;
  if (first && onMainThread()) th::bench::stamp("data folders");
  first = false;
  return folder;
}

void wrapMigrate() {
  th::bench::stamp("window icon: set");
  realMigrate();
  th::bench::stamp("save migration");
}

std::string wrapReadText(const std::filesystem::path& path) {
  if (!readTheMarker && onMainThread()) {
    readTheMarker = true;
    th::bench::stamp("update job start");
  }
  return realReadText(path);
}

extern "C" {
bool __real_SDL_SetRenderVSync(SDL_Renderer* renderer, int vsync);
bool __real_SDL_RenderClear(SDL_Renderer* renderer);
bool __real_SDL_RenderDebugText(SDL_Renderer* renderer, float x, float y, const char* text);
bool __real_SDL_RenderPresent(SDL_Renderer* renderer);
bool __real_SDL_Init(SDL_InitFlags flags);
SDL_Surface* __real_IMG_Load(const char* file);

SDL_Surface* __wrap_IMG_Load(const char* file) {
  SDL_Surface* icon = __real_IMG_Load(file);
  th::bench::stamp("window icon: read");
  return icon;
}

bool __wrap_SDL_Init(SDL_InitFlags flags) {
  th::bench::stamp("exec, libraries");
  return __real_SDL_Init(flags);
}

bool __wrap_SDL_SetRenderVSync(SDL_Renderer* renderer, int vsync) {
  const bool set = __real_SDL_SetRenderVSync(renderer, vsync);
  th::bench::stamp("SDL, window, renderer");
  return set;
}

bool __wrap_SDL_RenderClear(SDL_Renderer* renderer) {
  if (readTheMarker && !clearedOnce && onMainThread()) {
    clearedOnce = true;
    th::bench::stamp("marker, notes, first events");
  }
  return __real_SDL_RenderClear(renderer);
}

// The debug font's glyphs are made on its first use.
bool __wrap_SDL_RenderDebugText(SDL_Renderer* renderer, float x, float y, const char* text) {
  if (wroteText) return __real_SDL_RenderDebugText(renderer, x, y, text);
  wroteText = true;
  th::bench::stamp("first draw: background");
  const bool drawn = __real_SDL_RenderDebugText(renderer, x, y, text);
  th::bench::stamp("first draw: font, first text");
  return drawn;
}

bool __wrap_SDL_RenderPresent(SDL_Renderer* renderer) {
  th::bench::stamp("first draw: the rest");
  th::bench::reportFirstFrameAndExit(__real_SDL_RenderPresent(renderer));
}
}
