#pragma once

#include <string>

namespace th::update {

// The platform whose manifest this build fetches ("linux").
std::string platformKey();
// File names, relative to the install folder, of the three executables the launcher deals with.
std::string gameBinaryName();
std::string launcherBinaryName();
std::string helperBinaryName();

}  // namespace th::update
