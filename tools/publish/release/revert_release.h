#pragma once
// Going back to a kept release. Launchers never install a version below the one they have, so
// the files of the kept release are published again under a new, higher version.

#include <string>
#include <vector>

#include "tools/publish/options.h"
#include "tools/publish/release/release_store.h"
#include "update/manifest.h"

namespace th::publish {

// Finds the kept release that `options.revertTo` names and points `options` at it: its files as
// the release folder, its minimum online and protocol versions. `kept` is its manifest.
bool findKeptRelease(const ReleaseStore& store, ReleaseOptions& options, update::Manifest& kept,
                     std::vector<std::string>& problems);

// The revert's release notes: what it brings back, then `notes` (the given ones, or else the kept
// release's). Players moved by the revert read these on the screen, under the new version.
std::string revertNotes(const ReleaseOptions& options, const std::string& notes);

// A player still on the kept release holds all of its files: a revert of those alone would
// install nothing there and leave the marker naming the kept version, and that launcher would
// say VERSION MARKER UPDATE FAILED at every start. So the revert adds a file no earlier release
// holds: the versioned patch notes, "PATCH_NOTES_v<new version>.txt" holding `notes` (from
// revertNotes), which the launcher reads offline when the install has no "data/patch_notes.txt".
void addRevertNotes(const ReleaseOptions& options, const std::string& notes,
                    const ReleaseStore& store, update::Manifest& manifest,
                    std::vector<std::string>& problems);

}  // namespace th::publish
