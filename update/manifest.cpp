#include "update/manifest.h"

namespace th::update {}  // namespace th::update
