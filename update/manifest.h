#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace th::update {

struct ManifestFile {
  std::string path;    // relative, '/'-separated, as written in the manifest
  std::string sha256;  // 64 characters
  std::uint64_t size = 0;
  bool executable = false;
};

struct Manifest {
  std::int32_t format = 1;
  std::string product;
  std::string channel;
  std::string platform;
  std::string version;
  std::int32_t protocolVersion = 0;
  std::string minimumOnlineVersion;
  bool mandatory = false;
  std::string releaseNotes;
  std::vector<ManifestFile> files;
};

// Reads a (signature-verified) manifest text. On success replaces all of `out` and leaves
// `error` alone; on failure sets `error` to "manifest_header_invalid", "manifest_file_invalid"
// or "manifest_has_no_files" and leaves `out` alone.
bool parseManifest(const std::string& text, Manifest& out, std::string& error);

}  // namespace th::update
