#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace th::test {

// SHA-256 of `bytes` as 64 lower-case hex digits, computed independently of the engine.
std::string sha256Hex(std::string_view bytes);
std::string lowerHex(const unsigned char* bytes, size_t length);

}  // namespace th::test
