#pragma once
// What the helper agrees to do: swap one install's launcher for the file that install's engine
// staged, and start that launcher again. Anything else on its command line is refused before it
// waits, renames or starts anything.

#include <string>

#include "helper/command_line.h"
#include "update/file_descriptor.h"

namespace th::helper {

// True when `options` describe one install's launcher; `staged` is then the staged file, opened
// without following a link: the file judged here is the one given its mode, flushed and
// installed after the wait. Otherwise `error` is one of "target_not_a_launcher" (not named
// tarn-hollow-launcher), "relaunch_not_the_target", "staged_outside_staging_folder" (not inside
// the target's own .tarnhollow-update/stage-*/) and "staged_launcher_not_a_file" (a link, a
// folder, a pipe, nothing).
bool describesOneInstall(const HelperOptions& options, update::FileDescriptor& staged,
                         std::string& error);

// True when `options.target` is named like an install's launcher, so its work folder may hold
// the helper's log.
bool targetNamedLikeLauncher(const HelperOptions& options);

}  // namespace th::helper
