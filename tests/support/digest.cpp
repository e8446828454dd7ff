#include "tests/support/digest.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

namespace th::test {

std::string sha256Hex(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr) != 1) {
    ADD_FAILURE() << "EVP_Digest failed";
    return {};
  }
  return lowerHex(digest, length);
}

std::string lowerHex(const unsigned char* bytes, size_t length) {
  static const char kDigits[] = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < length; ++i) {
    text.push_back(kDigits[bytes[i] >> 4]);
    text.push_back(kDigits[bytes[i] & 0x0f]);
  }
  return text;
}

}  // namespace th::test
