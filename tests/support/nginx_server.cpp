#include "tests/support/nginx_server.h"

#include <arpa/inet.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>

namespace th::test {
namespace {

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

bool accepts(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  const sockaddr_in address = loopback(port);
  const bool connected =
      connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return connected;
}

// Single process, no user switch: with a master process nginx running as root would drop its
// workers to `nobody`, who cannot read the test's private 0700 folders.
constexpr const char* kConfig = R"(daemon off; master_process off; worker_processes 1;
pid @DIR@/nginx.pid;
error_log @DIR@/error.log info;
events { worker_connections 128; }
http {
  log_format th '$request_method $request_uri $status "$http_user_agent"';
  access_log @DIR@/access.log th;
  client_body_temp_path @DIR@/body; proxy_temp_path @DIR@/proxy; fastcgi_temp_path @DIR@/fcgi;
  uwsgi_temp_path @DIR@/uwsgi; scgi_temp_path @DIR@/scgi;
  default_type application/octet-stream;
  server { listen 127.0.0.1:@PORT@; root @ROOT@; @EXTRA@ }
}
)";

// A port of 127.0.0.1 that was free a moment ago (bound to port 0, then released); 0 on failure.
int freeLocalPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = loopback(0);
  socklen_t length = sizeof address;
  int port = 0;
  if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  close(fd);
  return port;
}

}  // namespace

NginxServer::NginxServer(const std::filesystem::path& documentRoot,
                         const std::string& extraServerConfig) {
  std::error_code ignored;
  // Another process may grab the port between its release and nginx's bind: try again.
  for (int attempt = 0; attempt < 5 && !ok(); ++attempt) {
    start(std::filesystem::absolute(documentRoot, ignored), extraServerConfig);
  }
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
  port_ = freeLocalPort();
  std::string config = kConfig;
  const std::pair<std::string, std::string> values[] = {{"@DIR@", dir_.path().string()},
                                                        {"@PORT@", std::to_string(port_)},
                                                        {"@ROOT@", documentRoot.string()},
                                                        {"@EXTRA@", extraServerConfig}};
  for (const auto& [name, value] : values) {
    for (size_t at; (at = config.find(name)) != std::string::npos;)
      config.replace(at, name.size(), value);
  }
  writeBytes(dir_ / "nginx.conf", config);
  auto process = std::make_unique<ChildProcess>(std::vector<std::string>{
      "/usr/sbin/nginx", "-p", dir_.path().string() + "/", "-c", (dir_ / "nginx.conf").string(),
      "-e", (dir_ / "error.log").string()});
  // nginx writes its pid file only after binding the port, so a stranger on it is not mistaken
  // for our server.
  waitUntil([&] { return !process->running() || std::filesystem::exists(dir_ / "nginx.pid"); },
            std::chrono::seconds(10));
  if (process->running() && accepts(port_)) process_ = std::move(process);
  return ok();
}

std::string NginxServer::url() const { return "http://127.0.0.1:" + std::to_string(port_); }

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

}  // namespace th::test
