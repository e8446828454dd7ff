#include "update/pinned_key.h"

#ifndef TH_UPDATE_KEY_FINGERPRINT
#error "TH_UPDATE_KEY_FINGERPRINT must be defined by the build"
#endif

namespace th::update {

std::string_view pinnedKeyFingerprint() {
  static_assert(sizeof(TH_UPDATE_KEY_FINGERPRINT) == 65, "the fingerprint is 64 hex digits");
  return TH_UPDATE_KEY_FINGERPRINT;
}

}  // namespace th::update
