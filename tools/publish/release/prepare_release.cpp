#include "tools/publish/release/prepare_release.h"

#include <system_error>

#include "tools/publish/keys/signing_key.h"
#include "tools/publish/release/guard_rails.h"
#include "tools/publish/release/manifest_json.h"
#include "tools/publish/release/player_reach.h"
#include "tools/publish/release/release_files.h"
#include "tools/publish/release/release_scan.h"
#include "tools/publish/verify/verify_release.h"
#include "update/signature.h"
#include "update/text_file.h"

namespace th::publish {
namespace fs = std::filesystem;
namespace {

using Problems = std::vector<std::string>;

// A folder of its own, so that nothing of an earlier preparation is mixed in, and outside the
// release, so that it is not prepared into itself.
bool makeOutFolder(const ReleaseOptions& options, Problems& problems) {
  std::error_code error;
  const fs::path& out = options.prepared;
  if (isWithin(fs::weakly_canonical(out, error), fs::weakly_canonical(options.from, error))) {
    problems.push_back(out.string() + ": the prepared folder lies inside the release");
    return false;
  }
  if (fs::exists(out, error) && !(fs::is_directory(out, error) && fs::is_empty(out, error))) {
    problems.push_back(out.string() + ": exists and is not an empty folder");
    return false;
  }
  fs::create_directories(out / "files", error);
  if (error) problems.push_back(out.string() + ": cannot be created: " + error.message());
  return !error;
}

// With the server's address, the checks that need what it serves run here too, so that the key
// is not fetched for a release that publish would refuse.
void judgeAgainstServedUrl(const ReleaseOptions& options, const update::Manifest& manifest,
                           Problems& problems, Problems& warnings) {
  if (options.servedUrl.empty()) return;
  VerifyOptions served;
  served.url = options.servedUrl;
  served.channel = options.channel;
  served.platform = options.platform;
  update::Manifest servedManifest;
  Problems unread;
  if (!fetchServedRelease(served, servedManifest, unread)) {
    for (const std::string& why : unread) {
      problems.push_back("--server-url: the served release cannot be judged: " + why);
    }
    return;
  }
  ServedRelease release;
  release.take(servedManifest);
  checkAboveServed(options, release, problems);
  warnNothingToInstall(manifest, release, warnings);
  warnFlagOnlyChanges(manifest, release, warnings);
}

bool writePrepared(const ReleaseOptions& options, const update::Manifest& manifest,
                   PrepareSummary& summary, Problems& problems) {
  const std::string json = manifestJson(manifest);
  if (!readsAsIntended(json, manifest, problems)) return false;
  if (!update::writeTextFile(options.prepared / "manifest.json", json)) {
    problems.push_back((options.prepared / "manifest.json").string() + ": cannot be written");
  }
  summary.manifestDigest = update::sha256Bytes(json);
  return problems.empty();
}

}  // namespace

bool prepareRelease(const ReleaseOptions& options, PrepareSummary& summary, Problems& problems) {
  std::string notes;
  std::vector<ReleaseFile> files;
  Problems entries;  // named after the options' problems
  const ReleaseTree tree(options.from);
  scanRelease(tree.path(), files, entries);
  readNotes(options, notes, problems);
  judgeRelease(options, notes, sizesOf(files), problems, summary.warnings);
  const std::string packagedLauncher = readPackagedLauncher(options, problems);
  problems.insert(problems.end(), entries.begin(), entries.end());
  if (!problems.empty() || !makeOutFolder(options, problems)) return false;
  update::Manifest manifest = manifestHeader(options, notes);
  std::size_t linked = 0;
  fillRelease(tree, files, options.prepared, nullptr, manifest, linked, problems);
  judgeAgainstServedUrl(options, manifest, problems, summary.warnings);
  warnPackagedLauncher(manifest, options.package, packagedLauncher, summary.warnings);
  if (!problems.empty() || !writePrepared(options, manifest, summary, problems)) {
    std::error_code ignored;
    fs::remove_all(options.prepared, ignored);
    return false;
  }
  summary.files = manifest.files.size();
  for (const auto& file : manifest.files) summary.bytes += file.size;
  return true;
}

}  // namespace th::publish
