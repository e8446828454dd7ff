#include "tools/publish/release/release_scan.h"

#include <algorithm>
#include <cctype>
#include <string_view>
#include <system_error>

#include "tools/publish/release/install_names.h"
#include "update/safe_path.h"

namespace th::publish {
namespace fs = std::filesystem;
namespace {

// The launcher joins names into URLs without escaping them, so a name must already be a valid
// URL path: no blanks, quotes, '%' (the server would decode it), '?' or '#', no bytes beyond
// ASCII. What is left are the characters a URL path may carry as they are.
bool fetchableName(const std::string& path) {
  static constexpr std::string_view kPunctuation = "-._~!$&'()*+,;=@/";
  return std::all_of(path.begin(), path.end(), [](char c) {
    return std::isalnum(static_cast<unsigned char>(c)) ||
           kPunctuation.find(c) != std::string_view::npos;
  });
}

// Why this entry cannot be shipped, or an empty text when it can; fills in its source.
std::string judge(const fs::directory_entry& entry, const fs::path& realRoot, ReleaseFile& file) {
  std::error_code error;
  if (!update::safeRelativePath(file.path)) return "the launcher refuses this name";
  if (std::string conflict = installNameConflict(file.path); !conflict.empty()) return conflict;
  if (!fetchableName(file.path)) {
    return "characters the launcher cannot fetch (names may hold letters, digits and "
           "- . _ ~ ! $ & ' ( ) * + , ; = @)";
  }
  fs::path source = entry.path();
  if (entry.is_symlink(error)) {
    source = fs::canonical(entry.path(), error);
    if (error) return "cannot be read (broken symbolic link: " + error.message() + ")";
    if (!isWithin(source, realRoot)) return "symbolic link leaving the release folder";
  }
  const fs::file_status status = fs::status(source, error);
  if (fs::is_directory(status)) return "symbolic link to a folder (link the files instead)";
  if (!fs::is_regular_file(status)) return "not a regular file";
  file.source = source.lexically_relative(realRoot).generic_string();
  file.size = fs::file_size(source, error);
  return {};
}

// Walks the release; `problems` gets one line per file that cannot be shipped.
void scanInto(const fs::path& root, std::vector<ReleaseFile>& files,
              std::vector<std::string>& problems) {
  std::error_code error;
  const fs::path realRoot = fs::canonical(root, error);
  if (error || !fs::is_directory(realRoot)) {
    problems.push_back(root.string() + ": not a readable folder");
    return;
  }
  fs::recursive_directory_iterator walk(realRoot, error), end;
  for (; !error && walk != end; walk.increment(error)) {
    std::error_code entryError;
    if (walk->is_directory(entryError) && !walk->is_symlink(entryError)) continue;
    ReleaseFile file;
    file.path = walk->path().lexically_relative(realRoot).generic_string();
    const std::string problem = judge(*walk, realRoot, file);
    if (problem.empty()) {
      files.push_back(file);
    } else {
      problems.push_back(file.path + ": " + problem);
    }
  }
  if (error) problems.push_back(root.string() + ": cannot be walked: " + error.message());
  std::sort(files.begin(), files.end(),
            [](const ReleaseFile& a, const ReleaseFile& b) { return a.path < b.path; });
  if (files.empty() && problems.empty()) problems.push_back(root.string() + ": holds no files");
}

}  // namespace

bool isWithin(const fs::path& path, const fs::path& folder) {
  const auto [folderEnd, pathAt] =
      std::mismatch(folder.begin(), folder.end(), path.begin(), path.end());
  return folderEnd == folder.end();
}

bool scanRelease(const fs::path& root, std::vector<ReleaseFile>& files,
                 std::vector<std::string>& problems) {
  std::vector<std::string> found;
  scanInto(root, files, found);
  std::sort(found.begin(), found.end());
  problems.insert(problems.end(), found.begin(), found.end());
  return found.empty();
}

}  // namespace th::publish
