#include "tools/publish/release/player_reach.h"

#include "launcher/layout.h"
#include "launcher/patch_notes.h"
#include "launcher/version_marker.h"
#include "update/platform.h"
#include "update/version.h"

namespace th::publish {

void checkAboveFreshInstall(const ReleaseOptions& options, std::vector<std::string>& problems) {
  if (options.belowFreshInstall ||
      update::compareVersion(options.version, kDefaultInstalledVersion) >= 0) {
    return;
  }
  problems.push_back("--version '" + options.version + "' is below " + kDefaultInstalledVersion +
                     ", the version of an install without a version marker: every new player's "
                     "launcher would say DOWNGRADE BLOCKED and never install it (give "
                     "--force-below-fresh-install if only players with a marker should get it)");
}

void warnUnseen(const ReleaseOptions& options, const std::string& notes,
                std::vector<std::string>& warnings) {
  if (options.channel != kUpdateChannel) {
    warnings.push_back("--channel '" + options.channel +
                       "': launchers only ever ask for channel '" + kUpdateChannel +
                       "', so no player will get this release");
  }
  if (notes.size() < kMinServerNotesLength) {
    warnings.push_back("the release notes are " + std::to_string(notes.size()) +
                       " bytes: launchers show release notes only from " +
                       std::to_string(kMinServerNotesLength) +
                       " bytes up, and otherwise the install's own patch notes file "
                       "(data/patch_notes.txt first), which may be an older release's");
  }
}

void warnFlagOnlyChanges(const update::Manifest& manifest, const ReleaseStore& store,
                         std::vector<std::string>& warnings) {
  for (const update::ManifestFile& file : manifest.files) {
    const update::ManifestFile* served = store.servedEntry(file.path);
    if (served == nullptr || served->sha256 != file.sha256 ||
        served->executable == file.executable) {
      continue;
    }
    warnings.push_back(file.path + ": only its executable flag changed (now " +
                       (file.executable ? "on" : "off") +
                       "); launchers compare digests only, so installs that have the served "
                       "release keep the old flag (change a byte of the file to ship it)");
  }
}

void warnNothingToInstall(const update::Manifest& manifest, const ReleaseStore& store,
                          std::vector<std::string>& warnings) {
  if (store.servedVersion().empty()) return;
  for (const update::ManifestFile& file : manifest.files) {
    const update::ManifestFile* served = store.servedEntry(file.path);
    if (served == nullptr || served->sha256 != file.sha256) return;
  }
  warnings.push_back("no file differs from the served release " + store.servedVersion() +
                     ": launchers on it install nothing and keep their version marker, so they "
                     "say VERSION MARKER UPDATE FAILED at every start until a release changes a "
                     "file (change or add one)");
}

void warnPackagedLauncher(const update::Manifest& manifest, const std::filesystem::path& package,
                          const std::string& packagedDigest, std::vector<std::string>& warnings) {
  if (package.empty()) return;
  const std::string launcher = update::launcherBinaryName();
  for (const update::ManifestFile& file : manifest.files) {
    if (file.path != launcher) continue;
    if (file.sha256 == packagedDigest) return;
    warnings.push_back(launcher + ": the release's has SHA-256 " + file.sha256 +
                       ", the one in the package " + package.string() + " " + packagedDigest +
                       ": every new player's launcher would update itself and restart on its "
                       "first start (publish the launcher of the build that made the package)");
    return;
  }
  warnings.push_back("--package: the release holds no " + launcher +
                     " at its top, so every launcher stays as it is, the package's for new "
                     "players");
}

}  // namespace th::publish
