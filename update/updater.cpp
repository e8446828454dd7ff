#include "update/updater.h"

namespace th::update {}  // namespace th::update
