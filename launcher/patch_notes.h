#pragma once
// The installed release's patch notes.

#include <filesystem>
#include <string>

#include "launcher/trim.h"
#include "update/text_file.h"

namespace {

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

}  // namespace
