#pragma once

#include <string>

namespace th::update {

// Orders two dotted versions numerically: -1 when a is older, 0 when equal, 1 when newer.
// Never fails: any text parses (see version.cpp for the exact reading).
int compareVersion(const std::string& a, const std::string& b);

}  // namespace th::update
