#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "tests/support/files.h"
#include "tests/support/process.h"

namespace th::test {

// A real nginx serving `documentRoot` on a port of 127.0.0.1, with its configuration, logs and
// temporary folders in a private folder; stopped with its process group at scope end.
// `extraServerConfig` is pasted into the server block (`location = /loop { return 302 /loop; }`).
class NginxServer {
 public:
  explicit NginxServer(const std::filesystem::path& documentRoot,
                       const std::string& extraServerConfig = "");
  ~NginxServer();
  NginxServer(const NginxServer&) = delete;
  NginxServer& operator=(const NginxServer&) = delete;

  bool ok() const { return process_ != nullptr; }  // false: see errorLog()
  std::string url() const;                         // "http://127.0.0.1:PORT"
  // `METHOD URI STATUS "USER-AGENT"` per request, once at least `requests` lines are there (nginx
  // logs a request after answering it; waits up to 10 s).
  std::string accessLog(size_t requests = 0) const;
  std::string errorLog() const;

 private:
  bool start(const std::filesystem::path& documentRoot, const std::string& extraServerConfig);

  TempDir dir_;
  int port_ = 0;
  std::unique_ptr<ChildProcess> process_;
};

}  // namespace th::test
