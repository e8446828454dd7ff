// tarn-hollow-launcher: the window the player starts instead of the game.

#include <SDL3/SDL.h>
#include <SDL3_image/SDL_image.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "launcher/input.h"
#include "launcher/patch_notes.h"
#include "launcher/screen.h"
#include "launcher/shared_state.h"
#include "launcher/update_job.h"
#include "launcher/version_marker.h"
#include "paths/data_dirs.h"
#include "paths/save_migration.h"
#include "update/start_signals.h"

namespace {

constexpr int kExitSdlFailed = 1;
constexpr int kExitWindowFailed = 2;
constexpr int kExitRendererFailed = 3;

struct SdlSession {
  ~SdlSession() { SDL_Quit(); }
};
struct WindowDeleter {
  void operator()(SDL_Window* window) const { SDL_DestroyWindow(window); }
};
struct RendererDeleter {
  void operator()(SDL_Renderer* renderer) const { SDL_DestroyRenderer(renderer); }
};
struct SurfaceDeleter {
  void operator()(SDL_Surface* surface) const { SDL_DestroySurface(surface); }
};

bool hasElevatedFlag(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--elevated-update") == 0) return true;
  }
  return false;
}

void setWindowIcon(SDL_Window* window, const std::filesystem::path& installDir) {
  const auto iconPath = installDir / "assets" / "launcher" / "tarn_hollow_launcher.png";
  std::unique_ptr<SDL_Surface, SurfaceDeleter> icon(IMG_Load(iconPath.c_str()));
  if (icon) SDL_SetWindowIcon(window, icon.get());
}

// One frame: drain input, copy the job state once, draw, present.
void runFrameLoop(LauncherUi& ui, SDL_Renderer* renderer) {
  while (ui.running) {
    SDL_Event event;
    while (SDL_PollEvent(&event)) handleEvent(ui, event);
    const Snapshot snap = snapshot(ui.shared);
    if (snap.quitRequested) ui.running = false;
    drawFrame(renderer, snap, ui.patchNotes, ui.installDir);
    SDL_RenderPresent(renderer);
  }
}

// SDL is shut down (renderer, window, SDL_Quit) when this returns.
int runLauncher(int argc, char** argv) {
  const bool elevated = hasElevatedFlag(argc, argv);
  if (!SDL_Init(SDL_INIT_VIDEO)) return kExitSdlFailed;
  SdlSession session;

  std::unique_ptr<SDL_Window, WindowDeleter> window(
      SDL_CreateWindow(kWindowTitle, kWindowWidth, kWindowHeight, 0));
  if (!window) return kExitWindowFailed;
  std::unique_ptr<SDL_Renderer, RendererDeleter> renderer(
      SDL_CreateRenderer(window.get(), nullptr));
  if (!renderer) return kExitRendererFailed;
  SDL_SetRenderVSync(renderer.get(), 1);

  const std::filesystem::path installDir = th::installDir();
  setWindowIcon(window.get(), installDir);
  th::migrateLegacySaveFiles();

  // A detached worker may still use the record while the process exits, so it is never destroyed.
  static Shared* const shared = new Shared();
  beginUpdateJob(*shared, installDir, kUpdateChannel, false, elevated);
  const std::string version = localVersion(installDir);

  LauncherUi ui{*shared, installDir, elevated, loadPatchNotes(installDir, version)};
  runFrameLoop(ui, renderer.get());
  return 0;
}

}  // namespace

// The update worker is detached and may still be inside the engine when the window closes. A
// normal exit would run the process's teardown under its feet: OpenSSL's atexit clean-up frees
// the digest and signature tables the worker is using, and static destructors of the loaded
// libraries run, which crashed the launcher when it was closed during a check or an apply.
// _exit ends all threads at once without that teardown; nothing is buffered that needs flushing,
// and an interrupted apply is healed by the next start.
int main(int argc, char** argv) {
  th::update::recordStartSignals();  // before SDL or libcurl touch any signal
  _exit(runLauncher(argc, argv));
}
