#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "tests/support/files.h"
#include "tests/support/process.h"

namespace th::test {

// A real nginx (/usr/sbin/nginx) owned by the test: its own configuration, prefix, temporary
// folders, logs and pid file live in a private TempDir, and it listens on a free port of
// 127.0.0.1. It runs as one process without a user switch, so it works as root and as a normal
// user alike. Stopped (with its whole process group) when the object goes out of scope.
class NginxServer {
 public:
  // Serves the files under `documentRoot`. `extraServerConfig` is pasted into the server block,
  // for example `location = /loop { return 302 /loop; }`.
  explicit NginxServer(const std::filesystem::path& documentRoot,
                       const std::string& extraServerConfig = "");
  ~NginxServer();
  NginxServer(const NginxServer&) = delete;
  NginxServer& operator=(const NginxServer&) = delete;

  // True once nginx accepts connections; false when it could not be started (see errorLog()).
  bool ok() const { return process_ != nullptr; }
  std::string url() const;  // "http://127.0.0.1:PORT", no trailing slash
  // One line per request: `METHOD URI STATUS "USER-AGENT"`. nginx writes a line only after the
  // response has gone out, so this waits (up to 10 s) until at least `requests` lines are there.
  std::string accessLog(size_t requests = 0) const;
  std::string errorLog() const;

 private:
  bool start(const std::filesystem::path& documentRoot, const std::string& extraServerConfig);

  TempDir dir_;
  int port_ = 0;
  std::unique_ptr<ChildProcess> process_;
};

}  // namespace th::test
