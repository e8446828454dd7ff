#include "update/text_file.h"

#include <fstream>
#include <system_error>

namespace th::update {

std::string readTextFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in.good()) return {};
  std::string contents;
  char chunk[65536];
  // istream::read turns a failing read (a folder opens but cannot be read) into badbit
  // instead of letting the stream buffer's exception escape.
  while (in.read(chunk, sizeof chunk) || in.gcount() > 0) {
    contents.append(chunk, static_cast<size_t>(in.gcount()));
    if (in.eof()) break;
  }
  if (in.bad()) return {};
  return contents;
}

bool writeTextFile(const std::filesystem::path& path, const std::string& contents) {
  std::error_code ignored;
  std::filesystem::create_directories(path.parent_path(), ignored);
  // Unbuffered, so that the write itself reaches the system and a full disk shows in the
  // stream's state; with a buffer the bytes would only fail at the close, which nobody checks.
  std::ofstream out;
  out.rdbuf()->pubsetbuf(nullptr, 0);
  out.open(path, std::ios::binary | std::ios::trunc);
  if (!out.is_open()) return false;
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  return out.good();
}

}  // namespace th::update
