#include "update/version.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace th::update {
namespace {

// Each part is accumulated in unsigned 32-bit arithmetic and reinterpreted as signed, so an
// over-long number wraps modulo 2^32 the same way on every compiler, without signed overflow.
std::vector<int> versionParts(const std::string& text) {
  std::vector<int> parts;
  std::uint32_t accumulator = 0;
  bool sawDigit = false;
  for (char c : text) {
    if (c >= '0' && c <= '9') {
      accumulator = accumulator * 10u + static_cast<std::uint32_t>(c - '0');
      sawDigit = true;
    } else if (c == '.') {
      parts.push_back(static_cast<std::int32_t>(accumulator));
      accumulator = 0;
      sawDigit = false;
    } else {
      break;  // a suffix such as "-beta" ends the numeric run
    }
  }
  if (sawDigit || !parts.empty()) parts.push_back(static_cast<std::int32_t>(accumulator));
  while (parts.size() < 4) parts.push_back(0);
  return parts;
}

}  // namespace

int compareVersion(const std::string& a, const std::string& b) {
  const std::vector<int> left = versionParts(a);
  const std::vector<int> right = versionParts(b);
  const std::size_t count = std::max(left.size(), right.size());
  for (std::size_t i = 0; i < count; ++i) {
    const int l = i < left.size() ? left[i] : 0;
    const int r = i < right.size() ? right[i] : 0;
    if (l < r) return -1;
    if (l > r) return 1;
  }
  return 0;
}

}  // namespace th::update
