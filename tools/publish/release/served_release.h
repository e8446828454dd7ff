#pragma once
// What players are served now, as its signed manifest lists it: read from the server's folder by
// the publishing run, or fetched from the server's address by a run on another machine.

#include <map>
#include <string>

#include "update/manifest.h"

namespace th::publish {

struct ServedRelease {
  std::string version;  // empty: nothing served, or nothing that could be read
  std::map<std::string, update::ManifestFile> files;

  // The served file at `path`, where the manifest lists one; null otherwise.
  const update::ManifestFile* entry(const std::string& path) const {
    const auto found = files.find(path);
    return found == files.end() ? nullptr : &found->second;
  }

  void take(const update::Manifest& manifest) {
    version = manifest.version;
    files.clear();
    for (const update::ManifestFile& file : manifest.files) files.emplace(file.path, file);
  }
};

}  // namespace th::publish
