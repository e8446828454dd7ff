#include "update/http.h"

namespace th::update {}  // namespace th::update
