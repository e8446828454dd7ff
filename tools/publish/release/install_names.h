#pragma once
// Names that every install keeps for itself and a release must leave alone, beyond the ones the
// launcher's own path check refuses.

#include <string>

namespace th::publish {

// Why a release file at `path` (relative, '/'-separated) would break the installs that update
// to it, or an empty text when it would not.
std::string installNameConflict(const std::string& path);

}  // namespace th::publish
