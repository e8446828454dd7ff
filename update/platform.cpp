#include "update/platform.h"

namespace th::update {

std::string platformKey() { return "linux"; }
std::string gameBinaryName() { return "tarn-hollow"; }
std::string launcherBinaryName() { return "tarn-hollow-launcher"; }
std::string helperBinaryName() { return "tarn-hollow-update-helper"; }

}  // namespace th::update
