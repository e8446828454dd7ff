#pragma once
// The installed release's patch notes.

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

#include "launcher/trim.h"
#include "update/text_file.h"

namespace {

// Release notes from the server replace the local ones only when they say something substantial.
constexpr std::size_t kMinServerNotesLength = 80;

// The first non-blank of the three candidate files, else a short built-in text.
inline std::string loadPatchNotes(const std::filesystem::path& installDir,
                                  const std::string& version) {
  const std::filesystem::path candidates[] = {
      installDir / "data" / "patch_notes.txt",
      installDir / ("PATCH_NOTES_v" + version + ".txt"),
      installDir / "PATCH_NOTES.txt",
  };
  for (const auto& candidate : candidates) {
    std::string text = trim(th::update::readTextFile(candidate));
    if (!text.empty()) return text;
  }
  return "Tarn Hollow " + version +
         "\n- Current build ready.\n- No local patch notes file was found.";
}

// Headings are recognised by exact text on a wrapped line, so a heading word must stand alone on
// its source line; a release line reads "Tarn Hollow v" and a version.
inline bool isSectionHeading(const std::string& line) {
  static constexpr std::string_view kHeadings[] = {"ADDED",     "IMPROVED", "FIXED",
                                                   "PACKAGING", "WEBSITE",  "LAUNCHER"};
  for (const std::string_view heading : kHeadings) {
    if (line == heading) return true;
  }
  return line.starts_with("Tarn Hollow v");
}

}  // namespace
