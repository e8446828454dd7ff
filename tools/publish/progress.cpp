#include "tools/publish/progress.h"

#include <unistd.h>

namespace th::publish {

HashProgress::HashProgress(std::FILE* out, std::size_t files, std::uint64_t bytes, const char* what)
    : out_(out), what_(what), terminal_(isatty(fileno(out)) == 1), files_(files), bytes_(bytes) {}

void HashProgress::fileDone(std::uint64_t bytes) {
  ++filesDone_;
  bytesDone_ += bytes;
  const int tenth = bytes_ == 0 ? 10 : static_cast<int>(bytesDone_ * 10 / bytes_);
  if (terminal_) {
    print();
  } else if (bytes_ >= kProgressThresholdBytes && tenth > lastTenth_) {
    print();
  }
  lastTenth_ = tenth;
}

void HashProgress::print() const {
  const double mib = 1024.0 * 1024.0;
  const int percent = bytes_ == 0 ? 100 : static_cast<int>(bytesDone_ * 100 / bytes_);
  std::fprintf(out_, "%s: %zu/%zu files, %.1f of %.1f MiB (%d%%)%s", what_, filesDone_, files_,
               static_cast<double>(bytesDone_) / mib, static_cast<double>(bytes_) / mib, percent,
               terminal_ && filesDone_ < files_ ? "\r" : "\n");
  std::fflush(out_);
}

}  // namespace th::publish
