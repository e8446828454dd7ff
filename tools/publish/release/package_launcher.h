#pragma once
// The launcher that the game package (tarn-hollow-*.tar.gz, as cpack writes it) gives every new
// player: a release should publish the same bytes, or each new player's first start updates it.

#include <filesystem>
#include <string>

namespace th::publish {

// SHA-256 of the tarn-hollow-launcher in the package's one top folder, read out with tar. On
// failure `error` says why.
bool packagedLauncherDigest(const std::filesystem::path& package, std::string& digest,
                            std::string& error);

}  // namespace th::publish
