#include "tests/support/system.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <sstream>

extern char** environ;

namespace th::test {

TempDir::TempDir(const std::filesystem::path& under) {
  const auto parent = under.empty() ? std::filesystem::temp_directory_path() : under;
  std::string pattern = (parent / "th-test-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) ADD_FAILURE() << "mkdtemp failed for " << pattern;
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

void writeBytes(const std::filesystem::path& path, const std::string& bytes) {
  std::error_code ignored;
  std::filesystem::create_directories(path.parent_path(), ignored);
  if (!(std::ofstream(path, std::ios::binary) << bytes))
    ADD_FAILURE() << "could not write " << path;
}

std::string readBytes(const std::filesystem::path& path) {
  std::ostringstream bytes;
  bytes << std::ifstream(path, std::ios::binary).rdbuf();
  return bytes.str();
}

unsigned fileMode(const std::filesystem::path& path) {
  std::error_code ignored;
  return static_cast<unsigned>(std::filesystem::status(path, ignored).permissions()) & 07777u;
}

std::string sha256Hex(std::string_view bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_sha256(), nullptr);
  return lowerHex(digest, length);
}

std::string lowerHex(const unsigned char* bytes, size_t length) {
  std::string text;
  for (size_t i = 0; i < length; ++i)
    (text += "0123456789abcdef"[bytes[i] >> 4]) += "0123456789abcdef"[bytes[i] & 15];
  return text;
}

namespace fs = std::filesystem;

FolderSnapshot snapshotFolder(const fs::path& folder) {
  FolderSnapshot snapshot;
  std::error_code error;
  for (fs::recursive_directory_iterator it(folder, error), end; !error && it != end;
       it.increment(error)) {
    const fs::file_status status = it->symlink_status(error);
    const std::string mode = std::to_string(static_cast<unsigned>(status.permissions()) & 07777u);
    std::string& entry = snapshot[it->path().lexically_relative(folder).generic_string()];
    if (status.type() == fs::file_type::regular) {
      entry = "file " + mode + " " + sha256Hex(readBytes(it->path()));
    } else if (status.type() == fs::file_type::symlink) {
      entry = "symlink " + mode + " " + fs::read_symlink(it->path(), error).string();
    } else {
      entry = (status.type() == fs::file_type::directory ? "folder " : "other ") + mode;
    }
  }
  return snapshot;
}

FolderSnapshot installSnapshot(const fs::path& installDir) {
  FolderSnapshot snapshot = snapshotFolder(installDir);
  std::erase_if(snapshot, [](const auto& e) { return e.first.starts_with(".tarnhollow-update"); });
  return snapshot;
}

std::string snapshotDiff(const FolderSnapshot& before, const FolderSnapshot& after) {
  std::string diff;
  for (const auto& [path, entry] : before) {
    const auto found = after.find(path);
    if (found == after.end())
      diff += "- " + path + " (" + entry + ")\n";
    else if (found->second != entry)
      diff += "~ " + path + ": " + entry + " -> " + found->second + "\n";
  }
  for (const auto& [path, entry] : after) {
    if (!before.contains(path)) diff += "+ " + path + " (" + entry + ")\n";
  }
  return diff;
}

namespace {

std::filesystem::path outputFile(const char* stream) {
  static std::atomic<int> counter{0};
  return std::filesystem::temp_directory_path() /
         ("th-proc-" + std::to_string(getpid()) + "-" + std::to_string(counter++) + "." + stream);
}

// This process's environment with `options.env` applied, as NAME=VALUE texts.
std::vector<std::string> childEnvironment(const ProcessOptions& options) {
  std::vector<std::string> env;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text = *entry;
    if (!options.env.contains(text.substr(0, text.find('=')))) env.push_back(text);
  }
  for (const auto& [name, value] : options.env) {
    if (value) env.push_back(name + "=" + *value);
  }
  return env;
}

// The null-terminated array that exec wants; valid while `strings` lives unchanged.
std::vector<char*> pointers(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (auto& s : strings) result.push_back(s.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const ProcessOptions& options)
    : outPath_(outputFile("out")), errPath_(outputFile("err")) {
  // Everything the child needs is prepared before the fork.
  std::vector<std::string> args = argv, env = childEnvironment(options);
  std::vector<char*> argp = pointers(args), envp = pointers(env);
  const std::string outPath = outPath_.string(), errPath = errPath_.string();
  const std::string workDir = options.workDir.string();
  pid_ = fork();
  if (pid_ != 0) return;
  setpgid(0, 0);
  dup2(open("/dev/null", O_RDONLY), 0);
  dup2(open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 1);
  dup2(open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), 2);
  if (!workDir.empty() && chdir(workDir.c_str()) != 0) _exit(125);
  execve(argp[0], argp.data(), envp.data());
  _exit(127);
}

ChildProcess::~ChildProcess() {
  // A polite stop first, so servers remove their lock files and sockets; then no more waiting.
  if (running()) {
    kill(SIGTERM);
    wait(std::chrono::seconds(3));
  }
  if (running()) {
    kill(SIGKILL);
    wait(std::chrono::seconds(10));
  }
  // What the program started and left behind in its group (a helper, a relaunched launcher).
  if (pid_ > 0) ::kill(-pid_, SIGKILL);
  std::error_code ignored;
  std::filesystem::remove(outPath_, ignored);
  std::filesystem::remove(errPath_, ignored);
}

bool ChildProcess::running() {
  if (pid_ <= 0 || reaped_) return false;
  if (waitpid(pid_, &status_, WNOHANG) == pid_) reaped_ = true;
  return !reaped_;
}

std::optional<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  waitUntil([&] { return !running(); }, timeout);
  if (!reaped_ || !WIFEXITED(status_)) return std::nullopt;
  return WEXITSTATUS(status_);
}

void ChildProcess::kill(int signal) {
  // The whole process group, so that grandchildren (an X server's helpers, nginx workers) go too.
  if (pid_ > 0 && !reaped_) ::kill(-pid_, signal);
}

std::string ChildProcess::out() const { return readBytes(outPath_); }
std::string ChildProcess::err() const { return readBytes(errPath_); }

std::vector<std::string> words(const std::string& text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), std::istream_iterator<std::string>()};
}

std::vector<std::string> underStrace(const std::string& expression, std::vector<std::string> argv,
                                     const std::string& output) {
  argv.insert(argv.begin(), {TH_STRACE, "-o", output, "-e", expression, "--"});
  return argv;
}

namespace {

// The sanitizer options the tests run with, and `more`.
std::string asanOptionsWith(const std::string& more) {
  const char* asan = std::getenv("ASAN_OPTIONS");
  return std::string(asan ? asan : "") + more;
}

}  // namespace

ProcessOptions tracedOptions() {
  return {{{"ASAN_OPTIONS", asanOptionsWith(":detect_leaks=0")}}, {}};
}

ProcessOptions underFasterClock(ProcessOptions options) {
  options.env["LD_PRELOAD"] = "/usr/lib/x86_64-linux-gnu/faketime/libfaketime.so.1";
  options.env["FAKETIME"] = "+0 x20";
  options.env["ASAN_OPTIONS"] = asanOptionsWith(":verify_asan_link_order=0");
  return options;
}

ProcessResult runProcess(const std::vector<std::string>& argv, const ProcessOptions& options) {
  ChildProcess child(argv, options);
  const int exitCode = child.wait(options.timeout).value_or(-1);
  child.kill(SIGKILL);  // after the time-out; nothing when it has ended
  child.wait(std::chrono::seconds(10));
  return {exitCode, child.out(), child.err()};
}

}  // namespace th::test
