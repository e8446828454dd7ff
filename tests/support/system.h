#pragma once
// The test's own access to the system, independent of the code under test.

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace th::test {

// A fresh folder under `under` (default: the temporary folder), removed at scope end.
class TempDir {
 public:
  explicit TempDir(const std::filesystem::path& under = {});
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::filesystem::path& relative) const {
    return path_ / relative;
  }

 private:
  std::filesystem::path path_;
};

// Test-side file access that does not go through the code under test.
void writeBytes(const std::filesystem::path& path, const std::string& bytes);
std::string readBytes(const std::filesystem::path& path);
// Permission bits as in `ls -l` octal (0755), following symlinks.
unsigned fileMode(const std::filesystem::path& path);
// SHA-256 of `bytes` as 64 lower-case hex digits, computed independently of the engine.
std::string sha256Hex(std::string_view bytes);
std::string lowerHex(const unsigned char* bytes, size_t length);

// One entry below the folder: "file <mode> <sha256>", "folder <mode>", "symlink <mode> <target>".
using FolderSnapshot = std::map<std::string, std::string>;

// Every entry below a folder (not following symlinks), keyed by '/'-separated relative path.
FolderSnapshot snapshotFolder(const std::filesystem::path& folder);

// An install folder without the updater's work folder, which failed updates leave behind.
FolderSnapshot installSnapshot(const std::filesystem::path& installDir);

// Empty when equal; otherwise one line per difference ("- path", "+ path", "~ path: a -> b").
std::string snapshotDiff(const FolderSnapshot& before, const FolderSnapshot& after);

struct ProcessOptions {
  // Variables to set (a value) or remove (std::nullopt); the rest of the environment is inherited.
  std::map<std::string, std::optional<std::string>> env;
  std::filesystem::path workDir;  // empty: inherit
  std::chrono::milliseconds timeout{60000};
};

struct ProcessResult {
  int exitCode = -1;  // -1 when killed by a signal or the time-out
  std::string out;
  std::string err;
};

// The blank-separated words of `text`, for command lines written as one text.
std::vector<std::string> words(const std::string& text);

// `argv` under strace with `expression` (a trace or an injection).
std::vector<std::string> underStrace(const std::string& expression, std::vector<std::string> argv,
                                     const std::string& output = "/dev/null");
// Options for a traced program: LeakSanitizer's exit check needs ptrace, which strace holds.
ProcessOptions tracedOptions();
// `options` with Debian's libfaketime preloaded: every clock, CLOCK_MONOTONIC included, runs
// twenty times as fast, so that a program's long time limits pass in a test's seconds.
ProcessOptions underFasterClock(ProcessOptions options);

// Runs a program to completion (killing it after the time-out) and collects its output.
ProcessResult runProcess(const std::vector<std::string>& argv, const ProcessOptions& options = {});

// A program running in the background; killed (SIGKILL) if still running at scope end.
class ChildProcess {
 public:
  ChildProcess(const std::vector<std::string>& argv, const ProcessOptions& options = {});
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  bool running();
  // The exit code within `timeout`, or std::nullopt (still running, or ended by a signal).
  std::optional<int> wait(std::chrono::milliseconds timeout);
  void kill(int signal);
  std::string out() const;
  std::string err() const;

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = 0;
  std::filesystem::path outPath_, errPath_;
};

// Polls `ready` every 20 ms until it holds or `timeout` passes.
template <typename Predicate>
bool waitUntil(Predicate ready, std::chrono::milliseconds timeout) {
  for (const auto deadline = std::chrono::steady_clock::now() + timeout; !ready();) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

}  // namespace th::test
