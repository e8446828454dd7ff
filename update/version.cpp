#include "update/version.h"

namespace th::update {}  // namespace th::update
