#include "tests/support/tls.h"

namespace th::test {
namespace {

constexpr const char* kSystemBundle = "/etc/ssl/certs/ca-certificates.crt";

std::vector<std::string> newKey(const std::string& name) {
  return {"/usr/bin/openssl", "req",
          "-newkey",          "ec",
          "-pkeyopt",         "ec_paramgen_curve:P-256",
          "-nodes",           "-keyout",
          name + ".key",      "-subj",
          "/CN=" + name};
}

}  // namespace

TestCertificates::TestCertificates() {
  ok_ = makeCa("ca") && makeCa("other-ca") && sign(good, "good", "ca", "IP:127.0.0.1", 2) &&
        sign(expired, "expired", "ca", "IP:127.0.0.1", -1) &&
        sign(otherHost, "other-host", "ca", "DNS:updates.example.invalid", 2) &&
        sign(untrusted, "untrusted", "other-ca", "IP:127.0.0.1", 2);
}

bool TestCertificates::makeCa(const std::string& name) {
  std::vector<std::string> argv = newKey(name);
  argv.insert(argv.end(), {"-x509", "-days", "2", "-out", name + ".pem"});
  return runProcess(argv, {{}, dir_.path()}).exitCode == 0;
}

bool TestCertificates::sign(ServerCertificate& server, const std::string& name,
                            const std::string& ca, const std::string& subjectAltName, int days) {
  writeBytes(dir_ / (name + ".ext"), "subjectAltName=" + subjectAltName + "\n");
  std::vector<std::string> request = newKey(name);
  request.insert(request.end(), {"-out", name + ".csr"});
  const std::vector<std::string> signing = {"/usr/bin/openssl",
                                            "x509",
                                            "-req",
                                            "-in",
                                            name + ".csr",
                                            "-CA",
                                            ca + ".pem",
                                            "-CAkey",
                                            ca + ".key",
                                            "-CAcreateserial",
                                            "-days",
                                            std::to_string(days),
                                            "-extfile",
                                            name + ".ext",
                                            "-out",
                                            name + ".pem"};
  server = {dir_ / (name + ".pem"), dir_ / (name + ".key")};
  return runProcess(request, {{}, dir_.path()}).exitCode == 0 &&
         runProcess(signing, {{}, dir_.path()}).exitCode == 0;
}

std::vector<std::string> TestCertificates::trusting(std::vector<std::string> argv) const {
  // unshare makes the new namespace's mounts private, so the bind mount stays inside it.
  argv.insert(argv.begin(),
              {"/usr/bin/unshare", "--mount", "/bin/sh", "-c",
               "mount --bind \"$0\" " + std::string(kSystemBundle) + " && exec \"$@\"",
               (dir_ / "ca.pem").string()});
  return argv;
}

}  // namespace th::test
