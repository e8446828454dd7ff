#include "tests/support/update_server.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>

#include <algorithm>
#include <cstdio>
#include <random>

namespace th::test {
namespace {

std::string manifestText(const Release& release) {
  std::string text = "{\n  \"format\": 1,\n  \"product\": \"tarn-hollow\",\n";
  text += "  \"channel\": \"stable\",\n  \"platform\": \"linux\",\n";
  text += "  \"version\": \"" + release.version + "\",\n  \"protocol_version\": 1,\n";
  text += "  \"minimum_online_version\": \"" + release.minimumOnlineVersion + "\",\n";
  text += std::string("  \"mandatory\": ") + (release.mandatory ? "true" : "false") + ",\n";
  text += "  \"release_notes\": \"\",\n  \"files\": [\n";
  for (const ReleaseFile& file : release.files) {
    text += "    { \"path\": \"" + file.path + "\", \"sha256\": \"" + sha256Hex(file.bytes) +
            "\", \"size\": " + std::to_string(file.announcedSize.value_or(file.bytes.size())) +
            ", \"executable\": " + (file.executable ? "true" : "false") + " }" +
            (&file != &release.files.back() ? ",\n" : "\n");
  }
  return text + "  ]\n}\n";
}

// Single process, no user switch: with a master process nginx running as root would drop its
// workers to `nobody`, who cannot read the test's private 0700 folders. Relative paths are below
// the prefix folder given with -p.
std::string nginxConfig(int port, bool tls, const std::string& root, const std::string& extra) {
  return R"(daemon off; master_process off; worker_processes 1;
pid nginx.pid;
error_log error.log info;
events { worker_connections 128; }
http {
  log_format th '$request_method $request_uri $status "$http_user_agent"';
  access_log access.log th;
  client_body_temp_path body; proxy_temp_path proxy; fastcgi_temp_path fcgi;
  uwsgi_temp_path uwsgi; scgi_temp_path scgi;
  default_type application/octet-stream;
  server { listen 127.0.0.1:)" +
         std::to_string(port) + (tls ? " ssl" : "") + "; root " + root + "; " + extra + " }\n}\n";
}

// Below Linux's range for outgoing connections; a server exits when its port is taken: try another.
template <typename Start>
int startOnFreePort(Start start) {
  std::mt19937 random(std::random_device{}());
  for (int attempt = 0; attempt < 5; ++attempt) {
    const int port = 20000 + static_cast<int>(random() % 12000);
    if (start(port)) return port;
  }
  return 0;
}

}  // namespace

std::filesystem::path channelFolder(const std::filesystem::path& serverRoot,
                                    const std::string& channel) {
  return serverRoot / channel / "linux";
}

std::string signHex(std::string_view bytes, const std::filesystem::path& privateKey) {
  std::unique_ptr<FILE, decltype(&std::fclose)> file(std::fopen(privateKey.c_str(), "r"),
                                                     std::fclose);
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
      file ? PEM_read_PrivateKey(file.get(), nullptr, nullptr, nullptr) : nullptr, EVP_PKEY_free);
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  std::vector<unsigned char> signature(1024);
  size_t length = signature.size();
  if (!key || EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1 ||
      EVP_DigestSign(ctx.get(), signature.data(), &length, data, bytes.size()) != 1) {
    ADD_FAILURE() << "cannot sign with " << privateKey;
    return {};
  }
  return lowerHex(signature.data(), length);
}

std::string publishRelease(const std::filesystem::path& serverRoot, const Release& release) {
  for (const ReleaseFile& file : release.files)
    writeBytes(channelFolder(serverRoot) / "files" / file.path, file.bytes);
  const std::string manifest = manifestText(release);
  publishRawManifest(serverRoot, manifest, signHex(manifest));
  return manifest;
}

void publishRawManifest(const std::filesystem::path& serverRoot, const std::string& manifest,
                        const std::string& signature) {
  writeBytes(channelFolder(serverRoot) / "manifest.json", manifest);
  writeBytes(channelFolder(serverRoot) / "manifest.sig", signature);
}

void prepareInstall(const std::filesystem::path& installDir,
                    const std::optional<std::string>& serverUrl,
                    const std::optional<std::string>& gameVersion) {
  writeBytes(installDir / "data" / "update_public_key.pem", readBytes(TH_DEV_PUBLIC_KEY));
  if (serverUrl) writeBytes(installDir / "data" / "update_server.txt", *serverUrl);
  if (gameVersion) writeBytes(installDir / "data" / "game_version", *gameVersion);
}

TestCertificates::TestCertificates() {
  ServerCertificate ca, otherCa;
  ok_ = make(ca, "ca", "", "") && make(otherCa, "other-ca", "", "") &&
        make(good, "good", "ca", "IP:127.0.0.1") &&
        make(expired, "expired", "ca", "IP:127.0.0.1", "-1") &&
        make(otherHost, "other-host", "ca", "DNS:updates.example.invalid") &&
        make(untrusted, "untrusted", "other-ca", "IP:127.0.0.1");
}

// A CA when `ca` is empty, else a certificate that `ca` signs; names hold no blanks.
bool TestCertificates::make(ServerCertificate& server, const std::string& name,
                            const std::string& ca, const std::string& subjectAltName,
                            const std::string& days) {
  server = {dir_ / (name + ".pem"), dir_ / (name + ".key")};
  const auto openssl = [&](const std::string& args) {
    return runProcess(words("/usr/bin/openssl " + args), {{}, dir_.path()}).exitCode == 0;
  };
  const std::string request = "req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout " +
                              name + ".key -subj /CN=" + name + " -out " + name;
  if (ca.empty()) return openssl(request + ".pem -x509 -days " + days);
  writeBytes(dir_ / (name + ".ext"), "subjectAltName=" + subjectAltName + "\n");
  return openssl(request + ".csr") &&
         openssl("x509 -req -in " + name + ".csr -CA " + ca + ".pem -CAkey " + ca +
                 ".key -CAcreateserial -days " + days + " -extfile " + name + ".ext -out " + name +
                 ".pem");
}

bool TestCertificates::trustedHere() const {
  return unshare(CLONE_NEWNS) == 0 &&
         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount((dir_ / "ca.pem").c_str(), "/etc/ssl/certs/ca-certificates.crt", nullptr, MS_BIND,
               nullptr) == 0;
}

NginxServer::NginxServer(const std::filesystem::path& documentRoot,
                         const std::string& extraServerConfig,
                         const std::optional<ServerCertificate>& tls)
    : tls_(tls.has_value()) {
  const std::string tlsConfig = tls ? "ssl_certificate " + tls->certificate.string() +
                                          "; ssl_certificate_key " + tls->key.string() + ";"
                                    : "";
  std::error_code ignored;
  const auto root = std::filesystem::absolute(documentRoot, ignored);
  port_ = startOnFreePort([&](int port) {
    port_ = port;
    return start(root, tlsConfig + extraServerConfig);
  });
}

NginxServer::~NginxServer() {
  if (process_ == nullptr) return;
  process_->kill(SIGQUIT);  // graceful first; ChildProcess kills the group if that stalls
  process_->wait(std::chrono::seconds(5));
}

bool NginxServer::start(const std::filesystem::path& documentRoot,
                        const std::string& extraServerConfig) {
  std::error_code ignored;
  std::filesystem::remove(dir_ / "nginx.pid", ignored);
  writeBytes(dir_ / "nginx.conf",
             nginxConfig(port_, tls_, documentRoot.string(), extraServerConfig));
  auto process = std::make_unique<ChildProcess>(std::vector<std::string>{
      "/usr/sbin/nginx", "-p", dir_.path().string() + "/", "-c", (dir_ / "nginx.conf").string(),
      "-e", (dir_ / "error.log").string()});
  // nginx writes its pid file only once it listens, and exits when it cannot.
  waitUntil([&] { return !process->running() || std::filesystem::exists(dir_ / "nginx.pid"); },
            std::chrono::seconds(10));
  if (process->running()) process_ = std::move(process);
  return ok();
}

std::string NginxServer::url() const {
  return (tls_ ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port_);
}

std::string NginxServer::accessLog(size_t requests) const {
  std::string log;
  waitUntil(
      [&] {
        log = readBytes(dir_ / "access.log");
        return static_cast<size_t>(std::count(log.begin(), log.end(), '\n')) >= requests;
      },
      std::chrono::seconds(10));
  return log;
}

std::string NginxServer::errorLog() const { return readBytes(dir_ / "error.log"); }

VarnishEdge::VarnishEdge(const std::filesystem::path& vcl, int originPort) {
  writeBytes(dir_ / "tarn-hollow-origin.vcl",
             "backend default { .host = \"127.0.0.1\"; .port = \"" + std::to_string(originPort) +
                 "\"; }\n");
  port_ = startOnFreePort([&](int port) {
    auto process = std::make_unique<ChildProcess>(std::vector<std::string>{
        "/usr/sbin/varnishd", "-F", "-j", "none", "-n", (dir_ / "work").string(), "-a",
        "127.0.0.1:" + std::to_string(port), "-f", vcl.string(), "-p",
        "vcl_path=" + dir_.path().string(), "-s", "malloc,256m"});
    // The manager listens before it starts the child that serves; it exits when it cannot.
    waitUntil(
        [&] {
          log_ = process->out() + process->err();
          return !process->running() || log_.find("said Child starts") != std::string::npos;
        },
        std::chrono::seconds(30));
    if (process->running()) process_ = std::move(process);
    return ok();
  });
}

}  // namespace th::test
