#include "tools/publish/release/player_reach.h"

#include <tuple>

#include "launcher/layout.h"
#include "launcher/patch_notes.h"
#include "launcher/version_marker.h"
#include "update/platform.h"
#include "update/version.h"

namespace th::publish {

namespace {

const std::string& versionOption(const ReleaseOptions& options) {
  static const std::string kVersion = "--version", kAs = "--as";
  return options.revertTo.empty() ? kVersion : kAs;
}

}  // namespace

void checkAboveFreshInstall(const ReleaseOptions& options, std::vector<std::string>& problems) {
  if (options.belowFreshInstall ||
      update::compareVersion(options.version, kDefaultInstalledVersion) >= 0) {
    return;
  }
  const std::string problem =
      versionOption(options) + " '" + options.version + "' is below " + kDefaultInstalledVersion +
      ", the version of an install without a version marker: every new player's launcher would "
      "say DOWNGRADE BLOCKED and never install it";
  problems.push_back(problem + (options.revertTo.empty()
                                    ? " (give --force-below-fresh-install if only players with a "
                                      "marker should get it)"
                                    : " (choose an --as of " +
                                          std::string(kDefaultInstalledVersion) + " or above)"));
}

void checkAboveServed(const ReleaseOptions& options, const ServedRelease& release,
                      std::vector<std::string>& problems) {
  const std::string& served = release.version;
  if (served.empty() || update::compareVersion(options.version, served) > 0) return;
  if (!options.revertTo.empty()) {
    problems.push_back("--as '" + options.version + "' is not above the served release " + served +
                       ": launchers on it would never install it");
    return;
  }
  problems.push_back("--version '" + options.version + "' is not above the served release " +
                     served + ": launchers on " + served +
                     " never install a lower version (they say DOWNGRADE BLOCKED), nor tell two "
                     "releases of one version apart; to bring back an earlier release's files, "
                     "use revert --to <kept version> --as <a version above " +
                     served + ">");
}

std::string lockedOutByMinimum(const std::string& version, const std::string& minimum) {
  if (minimum.empty() || update::compareVersion(minimum, version) <= 0) return {};
  return "the minimum online version " + minimum + " is above the release's own version " +
         version +
         ": players stay below it after installing the release, so PLAY stays locked "
         "for every player until a release of " +
         minimum + " or above is served";
}

void checkNoLockOut(const ReleaseOptions& options, std::vector<std::string>& problems) {
  const std::string lockOut = lockedOutByMinimum(options.version, options.minimumOnlineVersion);
  if (!lockOut.empty()) {
    problems.push_back("--minimum-online-version '" + options.minimumOnlineVersion +
                       "': " + lockOut + " (give a minimum of at most " + options.version + ")");
  }
}

void warnUnseen(const ReleaseOptions& options, const std::string& notes,
                std::vector<std::string>& warnings) {
  for (const auto& [option, given, asked] :
       {std::tuple{"--channel", options.channel, std::string(kUpdateChannel)},
        std::tuple{"--platform", options.platform, update::platformKey()}}) {
    if (given != asked) {
      warnings.push_back(std::string(option) + " '" + given + "': launchers only ever ask for " +
                         (option + 2) + " '" + asked + "', so no player will get this release");
    }
  }
  const std::string shownInstead =
      " launchers show release notes only from " + std::to_string(kMinServerNotesLength) +
      " bytes up, and otherwise the install's own patch notes file (data/patch_notes.txt first), "
      "which may be an older release's";
  if (options.notes.empty() && options.revertTo.empty()) {
    warnings.push_back("no --notes given:" + shownInstead);
  } else if (notes.size() < kMinServerNotesLength) {
    warnings.push_back("the release notes are " + std::to_string(notes.size()) +
                       " bytes:" + shownInstead);
  }
}

void warnFlagOnlyChanges(const update::Manifest& manifest, const ServedRelease& release,
                         std::vector<std::string>& warnings) {
  for (const update::ManifestFile& file : manifest.files) {
    const update::ManifestFile* served = release.entry(file.path);
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

void warnNothingToInstall(const update::Manifest& manifest, const ServedRelease& release,
                          std::vector<std::string>& warnings) {
  if (release.version.empty()) return;
  for (const update::ManifestFile& file : manifest.files) {
    const update::ManifestFile* served = release.entry(file.path);
    if (served == nullptr || served->sha256 != file.sha256) return;
  }
  warnings.push_back("no file differs from the served release " + release.version +
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
