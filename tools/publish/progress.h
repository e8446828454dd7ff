#pragma once
// Progress over a release's files (hashing them, or checking served ones), on stderr: a line
// that rewrites itself on a terminal, and a line per tenth of the bytes otherwise (for large
// releases only, to keep logs short).

#include <cstdint>
#include <cstdio>

namespace th::publish {

class HashProgress {
 public:
  // `what` starts each line: "hashing", "checking".
  HashProgress(std::FILE* out, std::size_t files, std::uint64_t bytes,
               const char* what = "hashing");
  void fileDone(std::uint64_t bytes);

 private:
  void print() const;

  std::FILE* out_;
  const char* what_;
  bool terminal_;
  std::size_t files_, filesDone_ = 0;
  std::uint64_t bytes_, bytesDone_ = 0;
  int lastTenth_ = 0;
};

// Releases smaller than this hash in a moment and get no progress lines in logs.
constexpr std::uint64_t kProgressThresholdBytes = 16ull << 20;

}  // namespace th::publish
