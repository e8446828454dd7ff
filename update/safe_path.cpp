#include "update/safe_path.h"

namespace th::update {}  // namespace th::update
