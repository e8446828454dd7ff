#include "tests/support/folder_snapshot.h"

#include <cstdio>
#include <system_error>

#include "tests/support/digest.h"
#include "tests/support/temp_dir.h"

namespace th::test {
namespace {

namespace fs = std::filesystem;

SnapshotEntry entryFor(const fs::path& path, const fs::file_status& status) {
  SnapshotEntry entry;
  entry.mode = static_cast<unsigned>(status.permissions()) & 07777u;
  std::error_code ignored;
  switch (status.type()) {
    case fs::file_type::regular:
      entry.type = "file";
      entry.content = sha256Hex(readBytes(path));
      break;
    case fs::file_type::directory:
      entry.type = "folder";
      break;
    case fs::file_type::symlink:
      entry.type = "symlink";
      entry.content = fs::read_symlink(path, ignored).string();
      break;
    default:
      entry.type = "other";
  }
  return entry;
}

std::string describe(const SnapshotEntry& entry) {
  char mode[8];
  std::snprintf(mode, sizeof mode, "%04o", entry.mode);
  std::string text = "(" + entry.type + " " + mode;
  if (!entry.content.empty()) text += " " + entry.content;
  return text + ")";
}

}  // namespace

FolderSnapshot snapshotFolder(const fs::path& folder) {
  FolderSnapshot snapshot;
  std::error_code error;
  for (fs::recursive_directory_iterator it(folder, error), end; !error && it != end;
       it.increment(error)) {
    const fs::file_status status = it->symlink_status(error);
    if (error) break;
    snapshot[it->path().lexically_relative(folder).generic_string()] = entryFor(it->path(), status);
  }
  return snapshot;
}

std::string snapshotDiff(const FolderSnapshot& before, const FolderSnapshot& after) {
  std::string diff;
  for (const auto& [path, entry] : before) {
    const auto found = after.find(path);
    if (found == after.end()) {
      diff += "- " + path + " " + describe(entry) + "\n";
    } else if (!(found->second == entry)) {
      diff += "~ " + path + ": " + describe(entry) + " -> " + describe(found->second) + "\n";
    }
  }
  for (const auto& [path, entry] : after) {
    if (!before.contains(path)) diff += "+ " + path + " " + describe(entry) + "\n";
  }
  return diff;
}

}  // namespace th::test
