#include "tests/support/folder_snapshot.h"

#include "tests/support/digest.h"
#include "tests/support/temp_dir.h"

namespace th::test {

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

}  // namespace th::test
