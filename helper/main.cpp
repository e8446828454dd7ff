// tarn-hollow-update-helper: swaps a new launcher executable in after the launcher quits, then
// starts it again. The launcher starts it as its last act of a self-update.

#include <unistd.h>

#include <chrono>
#include <iostream>
#include <string>

#include "helper/command_line.h"
#include "helper/helper_log.h"
#include "helper/install_check.h"
#include "helper/relaunch.h"
#include "helper/replace_launcher.h"
#include "helper/wait_for_exit.h"
#include "update/start_signals.h"

namespace {

constexpr int kExitReplaced = 0;  // also after --help and --version
constexpr int kExitFailed = 1;
constexpr int kExitRefused = 2;  // a command line that is not one install's hand-off
constexpr auto kWaitLimit = std::chrono::seconds(30);

}  // namespace

int main(int argc, char** argv) {
  using namespace th::helper;
  if (const Request request = requestOf(argc, argv); request != Request::HandOff) {
    std::cout << (request == Request::Help ? helpText() : versionText());
    return kExitReplaced;
  }
  th::update::recordStartSignals();  // the relaunched launcher gets what this process was given
  // Out of the launcher's session and process group: a launcher that led a terminal's session
  // (started as the terminal's command) hangs the terminal up as it quits, and the hang-up would
  // end this wait before the swap, at every start.
  setsid();
  HelperOptions options;
  std::string error;
  if (!parseCommandLine(argc, argv, options, error)) {
    std::cerr << "tarn-hollow-update-helper: " << error << '\n' << usageText();
    return kExitRefused;
  }
  const HelperLog log(workFolderOf(options.target) / "helper.log");
  // Refused before waiting: the helper renames and starts only what one install staged for it.
  th::update::FileDescriptor staged(-1);
  if (!describesOneInstall(options, staged, error)) {
    std::cerr << "tarn-hollow-update-helper: refused: " << error << '\n';
    if (targetNamedLikeLauncher(options)) log.line("refused: " + error);
    return kExitRefused;
  }
  log.line("started: replace " + options.target.string() + " with " + options.staged.string());
  waitForLauncherExit(options.waitPid, options.target, kWaitLimit, log);
  // A failed swap does not relaunch: the old launcher would stage the same update and hand it
  // back here, over and over.
  if (!replaceLauncher(staged, options.staged, options.target, log, error)) {
    log.line("replacement failed: " + error);
    return kExitFailed;
  }
  removeStagingFolder(options.staged, options.target, log);
  if (!relaunch(options.relaunch, error)) {
    log.line("relaunch of " + options.relaunch.string() + " failed: " + error);
    return kExitFailed;
  }
  log.line("relaunched " + options.relaunch.string());
  return kExitReplaced;
}
