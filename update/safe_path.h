#pragma once

#include <string>

namespace th::update {

// True when a manifest may name this relative path: it stays inside the install folder and
// avoids the reserved places (saves, player data, the updater's work folder, the public key).
bool safeRelativePath(const std::string& path);

}  // namespace th::update
