#include "tests/support/nginx_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

namespace th::test {
namespace {

constexpr int kStartAttempts = 5;

sockaddr_in loopback(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

bool pathExists(const std::filesystem::path& path) {
  std::error_code ignored;
  return std::filesystem::exists(path, ignored);
}

bool accepts(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return false;
  const sockaddr_in address = loopback(port);
  const bool connected =
      connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return connected;
}

// Single process, no user switch: with a master process nginx running as root would drop its
// workers to `nobody`, who cannot read the test's private 0700 folders.
std::string configText(const std::filesystem::path& dir, const std::filesystem::path& root,
                       int port, const std::string& extra) {
  const std::string d = dir.string();
  return "daemon off;\n"
         "master_process off;\n"
         "worker_processes 1;\n"
         "pid " +
         d +
         "/nginx.pid;\n"
         "error_log " +
         d +
         "/logs/error.log info;\n"
         "events { worker_connections 128; }\n"
         "http {\n"
         "  log_format th '$request_method $request_uri $status \"$http_user_agent\"';\n"
         "  access_log " +
         d +
         "/logs/access.log th;\n"
         "  client_body_temp_path " +
         d +
         "/temp/body;\n"
         "  proxy_temp_path " +
         d +
         "/temp/proxy;\n"
         "  fastcgi_temp_path " +
         d +
         "/temp/fastcgi;\n"
         "  uwsgi_temp_path " +
         d +
         "/temp/uwsgi;\n"
         "  scgi_temp_path " +
         d +
         "/temp/scgi;\n"
         "  default_type application/octet-stream;\n"
         "  server {\n"
         "    listen 127.0.0.1:" +
         std::to_string(port) +
         ";\n"
         "    root " +
         root.string() +
         ";\n"
         "    " +
         extra +
         "\n"
         "  }\n"
         "}\n";
}

}  // namespace

int freeLocalPort() {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) return 0;
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

NginxServer::NginxServer(const std::filesystem::path& documentRoot,
                         const std::string& extraServerConfig) {
  std::error_code ignored;
  std::filesystem::create_directories(dir_ / "logs", ignored);
  std::filesystem::create_directories(dir_ / "temp", ignored);
  // Another process may grab the port between its release and nginx's bind: try again.
  for (int attempt = 0; attempt < kStartAttempts && !ok(); ++attempt) {
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
  if (port_ == 0) return false;
  writeBytes(dir_ / "nginx.conf", configText(dir_.path(), documentRoot, port_, extraServerConfig));
  auto process = std::make_unique<ChildProcess>(std::vector<std::string>{
      "/usr/sbin/nginx", "-p", dir_.path().string() + "/", "-c", (dir_ / "nginx.conf").string(),
      "-e", (dir_ / "logs" / "error.log").string()});
  // nginx writes its pid file only after binding the port, so a stranger on it is not mistaken
  // for our server.
  const std::filesystem::path pidFile = dir_ / "nginx.pid";
  const bool ready =
      waitUntil([&] { return !process->running() || (pathExists(pidFile) && accepts(port_)); },
                std::chrono::seconds(10)) &&
      process->running();
  if (ready) process_ = std::move(process);
  return ready;
}

std::string NginxServer::url() const { return "http://127.0.0.1:" + std::to_string(port_); }

std::string NginxServer::accessLog(size_t requests) const {
  std::string log;
  waitUntil(
      [&] {
        log = readBytes(dir_ / "logs" / "access.log");
        return static_cast<size_t>(std::count(log.begin(), log.end(), '\n')) >= requests;
      },
      std::chrono::seconds(10));
  return log;
}

std::string NginxServer::errorLog() const { return readBytes(dir_ / "logs" / "error.log"); }

}  // namespace th::test
