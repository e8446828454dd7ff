#include "tools/publish/release/revert_release.h"

#include "update/signature.h"
#include "update/text_file.h"

namespace th::publish {

bool findKeptRelease(const ReleaseStore& store, ReleaseOptions& options, update::Manifest& kept,
                     std::vector<std::string>& problems) {
  std::filesystem::path folder;
  if (!store.findKept(options.revertTo, folder, kept)) {
    std::string versions;
    for (const std::string& version : store.keptVersions()) {
      versions += (versions.empty() ? "" : ", ") + version;
    }
    problems.push_back("--to '" + options.revertTo +
                       "': no finished release of that version is kept for " + options.channel +
                       "/" + options.platform +
                       " (kept: " + (versions.empty() ? "none" : versions) + ")");
    return false;
  }
  options.from = folder / "files";
  options.minimumOnlineVersion = kept.minimumOnlineVersion;
  options.protocolVersion = std::to_string(kept.protocolVersion);
  return true;
}

std::string revertNotes(const ReleaseOptions& options, const std::string& notes) {
  return "Tarn Hollow v" + options.version + "\n\nThe files of " + options.revertTo +
         ", again.\n\n" + notes + "\n";
}

void addRevertNotes(const ReleaseOptions& options, const std::string& notes,
                    const ReleaseStore& store, update::Manifest& manifest,
                    std::vector<std::string>& problems) {
  const std::string path = "PATCH_NOTES_v" + options.version + ".txt";
  for (const update::ManifestFile& file : manifest.files) {
    if (file.path == path) {
      problems.push_back(path + ": the kept release " + options.revertTo +
                         " holds it already; the revert needs it for its own notes");
      return;
    }
  }
  const std::string& text = notes;
  const std::filesystem::path place = store.folder() / "files" / path;
  if (!update::writeTextFile(place, text)) {
    problems.push_back(place.string() + ": cannot be written");
    return;
  }
  stampNewerThan(place, store.servedFile(path));
  manifest.files.push_back({path, update::sha256Bytes(text), text.size(), false});
}

}  // namespace th::publish
