#pragma once
// A test update server: signed releases as the studio publishes them, served by a real nginx.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/system.h"

namespace th::test {

// {"path", "bytes", executable, size announced in the manifest if not the real one}.
struct ReleaseFile {
  std::string path;
  std::string bytes;
  bool executable = false;
  std::optional<std::uint64_t> announcedSize{};
};

// A stable/linux release; files keep their order in the manifest.
struct Release {
  std::string version = "1.0.0";
  std::vector<ReleaseFile> files;
  bool mandatory = false;
  std::string minimumOnlineVersion;
};

// <serverRoot>/<channel>/linux, the folder of manifest.json, manifest.sig and files/.
std::filesystem::path channelFolder(const std::filesystem::path& serverRoot,
                                    const std::string& channel = "stable");
// Lower-case hex of an OpenSSL SHA-256 signature over exactly `bytes`.
std::string signHex(std::string_view bytes,
                    const std::filesystem::path& privateKey = TH_DEV_PRIVATE_KEY);
// Writes the files, the manifest and its signature (development key); returns the manifest.
std::string publishRelease(const std::filesystem::path& serverRoot, const Release& release);
// Writes manifest.json and manifest.sig exactly as given, for hostile servers.
void publishRawManifest(const std::filesystem::path& serverRoot, const std::string& manifest,
                        const std::string& signature);
// The development public key, and the server address and version marker when given.
void prepareInstall(const std::filesystem::path& installDir,
                    const std::optional<std::string>& serverUrl,
                    const std::optional<std::string>& gameVersion = std::nullopt);

struct ServerCertificate {
  std::filesystem::path certificate, key;
};

// A test CA made with openssl and what it signs for 127.0.0.1, expired, another host; another CA's.
class TestCertificates {
 public:
  TestCertificates();
  bool ok() const { return ok_; }
  // Puts this process (root) in a mount namespace of its own whose system CA bundle is the test CA.
  bool trustedHere() const;

  ServerCertificate good, expired, otherHost, untrusted;

 private:
  bool make(ServerCertificate& server, const std::string& name, const std::string& ca,
            const std::string& subjectAltName, const std::string& days = "2");
  TempDir dir_;
  bool ok_ = false;
};

// A real nginx serving `documentRoot` on 127.0.0.1 from a private folder, stopped at scope end;
// `extraServerConfig` goes into the server block. With a certificate it serves HTTPS only.
class NginxServer {
 public:
  explicit NginxServer(const std::filesystem::path& documentRoot,
                       const std::string& extraServerConfig = "",
                       const std::optional<ServerCertificate>& tls = std::nullopt);
  ~NginxServer();
  NginxServer(const NginxServer&) = delete;
  NginxServer& operator=(const NginxServer&) = delete;

  bool ok() const { return process_ != nullptr; }  // false: see errorLog()
  std::string url() const;                         // "http://127.0.0.1:PORT" or "https://..."
  int port() const { return port_; }
  // `METHOD URI STATUS "USER-AGENT"` per request, once at least `requests` lines are there (nginx
  // logs a request after answering it; waits up to 10 s).
  std::string accessLog(size_t requests = 0) const;
  std::string errorLog() const;

 private:
  bool start(const std::filesystem::path& documentRoot, const std::string& extraServerConfig);

  TempDir dir_;
  int port_ = 0;
  bool tls_ = false;
  std::unique_ptr<ChildProcess> process_;
};

// A real Varnish on 127.0.0.1 running the VCL file `vcl` as it is, its `backend default` (in
// tarn-hollow-origin.vcl on its VCL path) at the origin's port; stopped at scope end.
class VarnishEdge {
 public:
  VarnishEdge(const std::filesystem::path& vcl, int originPort);

  bool ok() const { return process_ != nullptr; }  // false: see log()
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
  std::string log() const { return log_; }  // what varnishd printed

 private:
  TempDir dir_;
  int port_ = 0;
  std::unique_ptr<ChildProcess> process_;
  std::string log_;
};

}  // namespace th::test
