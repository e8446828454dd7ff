#undef NDEBUG  // the invariants are checked in every build; a failed one is a crash to libFuzzer
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <string>

#include "update/version.h"

using th::update::compareVersion;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The input holds two versions separated by the first NUL byte (or none: the second is empty).
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::size_t split = input.find('\0');
  const std::string a = input.substr(0, split);
  const std::string b = split == std::string::npos ? std::string() : input.substr(split + 1);

  const int forward = compareVersion(a, b);
  assert(forward == -1 || forward == 0 || forward == 1);
  assert(forward == -compareVersion(b, a));
  assert(compareVersion(a, a) == 0 && compareVersion(b, b) == 0);
  // A suffix after the numeric run never matters.
  assert(compareVersion(a + "-rc", b) == forward);
  return 0;
}
