#pragma once
// The studio's guard rails: what every way of publishing checks before anything is copied,
// signed or served, in one place, so that `release` and the prepare, sign and publish steps
// refuse and warn alike. The checks against what is served are in player_reach.h.

#include <string>
#include <vector>

#include "tools/publish/options.h"
#include "update/manifest.h"

namespace th::publish {

// Reads the release notes file the options name, if any, into `notes`; false with a problem line
// naming the file and why when it cannot be read or holds what the launcher cannot read.
bool readNotes(const ReleaseOptions& options, std::string& notes,
               std::vector<std::string>& problems);

// The option values (versions, names, the server root outside the release), a version below a
// fresh install's, a minimum online version that locks players out, a channel or platform no
// launcher asks for, notes too short to show, and files (`sized`: paths and sizes) too large for
// the slowest link: one line each.
void judgeRelease(const ReleaseOptions& options, const std::string& notes,
                  const std::vector<update::ManifestFile>& sized,
                  std::vector<std::string>& problems, std::vector<std::string>& warnings);

}  // namespace th::publish
