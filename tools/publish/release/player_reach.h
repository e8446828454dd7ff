#pragma once
// Releases that publish cleanly yet never reach the players they are meant for, because of how
// every launcher reads what is served: refused, or said as warnings.

#include <filesystem>
#include <string>
#include <vector>

#include "tools/publish/options.h"
#include "tools/publish/release/release_store.h"
#include "update/manifest.h"

namespace th::publish {

// An install without a version marker counts as a fixed version, and launchers never install a
// release below the installed one: a version below it would reach no new player. Refused unless
// the options force it.
void checkAboveFreshInstall(const ReleaseOptions& options, std::vector<std::string>& problems);

// A channel that no launcher asks for, and notes too short for the launcher to show.
void warnUnseen(const ReleaseOptions& options, const std::string& notes,
                std::vector<std::string>& warnings);

// Launchers compare digests only: a file whose bytes are those served but whose executable flag
// is not keeps, on every install that has it, the flag it had.
void warnFlagOnlyChanges(const update::Manifest& manifest, const ReleaseStore& store,
                         std::vector<std::string>& warnings);

// A launcher on the served release that finds every file current installs nothing and keeps its
// version marker, so it reports the marker as not updated at every start: a release must change
// at least one file against the one it replaces.
void warnNothingToInstall(const update::Manifest& manifest, const ReleaseStore& store,
                          std::vector<std::string>& warnings);

// New players start with the game package's launcher: a release whose launcher differs has each
// of them update it and restart on their first start. Said only when a package is named.
void warnPackagedLauncher(const update::Manifest& manifest, const std::filesystem::path& package,
                          const std::string& packagedDigest, std::vector<std::string>& warnings);

}  // namespace th::publish
