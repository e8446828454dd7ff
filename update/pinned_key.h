#pragma once

#include <string_view>

namespace th::update {

// SHA-256 (64 lower-case hex digits) of the only update public key file this build trusts.
// Fixed at build time; never read from a file beside the key.
std::string_view pinnedKeyFingerprint();

}  // namespace th::update
