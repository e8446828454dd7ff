#pragma once
// TLS for the test servers: a CA made for one test with the openssl command line, the server
// certificates it signs, and a way to run a program that trusts that CA alone.

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/system.h"

namespace th::test {

struct ServerCertificate {
  std::filesystem::path certificate, key;
};

class TestCertificates {
 public:
  TestCertificates();

  bool ok() const { return ok_; }
  // For 127.0.0.1 from the test CA; the same expired; for another host name; from another CA.
  ServerCertificate good, expired, otherHost, untrusted;

  // `argv` in a private mount namespace (root only) where the system's CA bundle, the one that
  // libcurl reads, is replaced by the test CA: nothing on the machine changes.
  std::vector<std::string> trusting(std::vector<std::string> argv) const;

 private:
  bool makeCa(const std::string& name);
  bool sign(ServerCertificate& server, const std::string& name, const std::string& ca,
            const std::string& subjectAltName, int days);

  TempDir dir_;
  bool ok_ = false;
};

}  // namespace th::test
