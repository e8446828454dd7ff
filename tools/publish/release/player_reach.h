#pragma once
// Releases that publish cleanly yet never reach the players they are meant for, because of how
// every launcher reads what is served: refused, or said as warnings.

#include <filesystem>
#include <string>
#include <vector>

#include "tools/publish/options.h"
#include "tools/publish/release/served_release.h"
#include "update/manifest.h"

namespace th::publish {

// An install without a version marker counts as a fixed version, and launchers never install a
// release below the installed one: a version below it would reach no new player. Refused unless
// the options force it.
void checkAboveFreshInstall(const ReleaseOptions& options, std::vector<std::string>& problems);

// Launchers never install a version below the one installed, and two releases of one version
// cannot be told apart: a release must be above the served one. Refused, naming revert as the way
// back to earlier files.
void checkAboveServed(const ReleaseOptions& options, const ServedRelease& served,
                      std::vector<std::string>& problems);

// A minimum online version above the release's own: its players stay below the minimum after
// installing it, and PLAY stays locked for every one of them. What is wrong, or empty.
std::string lockedOutByMinimum(const std::string& version, const std::string& minimum);

// The release's values that would lock players out: refused.
void checkNoLockOut(const ReleaseOptions& options, std::vector<std::string>& problems);

// A channel or platform that no launcher asks for, and notes too short for the launcher to show.
void warnUnseen(const ReleaseOptions& options, const std::string& notes,
                std::vector<std::string>& warnings);

// Launchers compare digests only: a file whose bytes are those served but whose executable flag
// is not keeps, on every install that has it, the flag it had.
void warnFlagOnlyChanges(const update::Manifest& manifest, const ServedRelease& served,
                         std::vector<std::string>& warnings);

// A launcher on the served release that finds every file current installs nothing and keeps its
// version marker, so it reports the marker as not updated at every start: a release must change
// at least one file against the one it replaces.
void warnNothingToInstall(const update::Manifest& manifest, const ServedRelease& served,
                          std::vector<std::string>& warnings);

// New players start with the game package's launcher: a release whose launcher differs has each
// of them update it and restart on their first start. Said only when a package is named.
void warnPackagedLauncher(const update::Manifest& manifest, const std::filesystem::path& package,
                          const std::string& packagedDigest, std::vector<std::string>& warnings);

}  // namespace th::publish
