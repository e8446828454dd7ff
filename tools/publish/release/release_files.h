#pragma once
// A release's files as its manifest lists them: copied (or linked) into a release folder and
// hashed on the way, and the manifest's header from the options.

#include <cstddef>
#include <filesystem>
#include <string>
#include <vector>

#include "tools/publish/options.h"
#include "tools/publish/release/release_copy.h"
#include "tools/publish/release/release_scan.h"
#include "tools/publish/release/release_store.h"
#include "update/manifest.h"

namespace th::publish {

// Fills `folder`/files with `files`, opened beneath `tree`, and lists each in `manifest`. With a
// `store`, a file whose size and digest equal the served release's is hard-linked from it (a
// one-file patch of a large game costs one file's copy) and counted in `linked`; every other file
// is copied, hashing the bytes as they are copied, so that what is listed is exactly what was
// hashed. One problem line per file that cannot be opened or copied.
void fillRelease(const ReleaseTree& tree, const std::vector<ReleaseFile>& files,
                 const std::filesystem::path& folder, const ReleaseStore* store,
                 update::Manifest& manifest, std::size_t& linked,
                 std::vector<std::string>& problems);

// The paths and sizes of scanned files, for the checks that need no digest.
std::vector<update::ManifestFile> sizesOf(const std::vector<ReleaseFile>& files);

// The manifest's fields other than its files, from the options and the release notes.
update::Manifest manifestHeader(const ReleaseOptions& options, const std::string& notes);

// Files published again from a listing already made (a kept release's manifest, a signed one):
// each file of `manifest` must be listed by `listing` with the same digest and size, and every
// listed file must be there. The files on disk carry no executable flags that can be trusted, so
// each takes the listing's. `lister` names the listing in the problem lines.
void matchListedFiles(const update::Manifest& listing, const std::string& lister,
                      update::Manifest& manifest, std::vector<std::string>& problems);

}  // namespace th::publish
