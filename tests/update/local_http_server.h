#pragma once

#include <httplib.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "tests/support/process.h"

namespace th::test {

// An in-process HTTP server on 127.0.0.1 for faults a real web server will not produce
// (a body cut short, a request that must never arrive, a slow chunked body).
class LocalHttpServer {
 public:
  explicit LocalHttpServer(const std::function<void(httplib::Server&)>& routes) {
    routes(server_);
    port_ = server_.bind_to_any_port("127.0.0.1");
    thread_ = std::thread([this] { server_.listen_after_bind(); });
    // stop() is a no-op until the accept loop runs, so wait for it.
    waitUntil([this] { return server_.is_running(); }, std::chrono::seconds(10));
  }
  ~LocalHttpServer() {
    server_.stop();
    thread_.join();
  }
  LocalHttpServer(const LocalHttpServer&) = delete;
  LocalHttpServer& operator=(const LocalHttpServer&) = delete;

  bool ok() const { return port_ > 0; }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  httplib::Server server_;
  int port_ = -1;
  std::thread thread_;
};

}  // namespace th::test
