#include "update/signature.h"

namespace th::update {}  // namespace th::update
