#pragma once

#include <filesystem>

namespace th {

// These compute paths only; none of them creates or checks anything on disk.

// The folder holding the running launcher executable.
std::filesystem::path installDir();
// $XDG_DATA_HOME/tarn-hollow, else $HOME/.local/share/tarn-hollow, else <install>/userdata.
std::filesystem::path userDataDir();
// userDataDir()/saves.
std::filesystem::path userSaveDir();

}  // namespace th
