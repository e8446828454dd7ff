#pragma once
// What this variant of tarn-hollow-publish was built with. Each variant defines these, like the
// engine's pinned fingerprint (tools/publish/built_in_key.cpp.in).

#include <string_view>

namespace th::publish {

// The public key (PEM) built into this variant; empty when the build was given none.
std::string_view builtInPublicKey();

// True for the variant that pins the development key, whose private half is in the repository.
bool builtWithDevelopmentKey();

}  // namespace th::publish
