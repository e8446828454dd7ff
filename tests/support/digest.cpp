#include "tests/support/digest.h"

#include <openssl/evp.h>

namespace th::test {

std::string sha256Hex(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
  return lowerHex(digest, length);
}

std::string lowerHex(const unsigned char* bytes, size_t length) {
  std::string text;
  for (size_t i = 0; i < length; ++i)
    (text += "0123456789abcdef"[bytes[i] >> 4]) += "0123456789abcdef"[bytes[i] & 15];
  return text;
}

}  // namespace th::test
