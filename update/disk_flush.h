#pragma once

#include <filesystem>

namespace th::update {

// Asks the kernel to put a file's data, or a folder's entries, on disk before returning, so that
// a power loss cannot undo them. False when it cannot be opened or flushed. The engine ignores
// that on purpose: a flush protects a result but never changes it.
bool flushToDisk(const std::filesystem::path& fileOrFolder);

// The same for everything written to the file system that holds `path`.
void flushFileSystem(const std::filesystem::path& path);

}  // namespace th::update
