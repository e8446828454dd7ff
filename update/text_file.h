#pragma once

#include <filesystem>
#include <string>

namespace th::update {

// The file's bytes, unchanged; empty when it cannot be opened or read.
std::string readTextFile(const std::filesystem::path& path);

// Writes the bytes in place (no temporary file), creating missing parent folders.
// True when the file opened and every byte was written without a stream error.
bool writeTextFile(const std::filesystem::path& path, const std::string& contents);

}  // namespace th::update
