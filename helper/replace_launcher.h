#pragma once
// Swapping the staged launcher in for the installed one, and tidying the update work folder.

#include <filesystem>
#include <optional>
#include <string>

#include "helper/helper_log.h"

namespace th::helper {

// The update work folder of the install that holds `target`.
std::filesystem::path workFolderOf(const std::filesystem::path& target);

// The "stage-" folder directly inside `workFolder` that holds `staged`, if it lies in one.
std::optional<std::filesystem::path> stagingFolderOf(const std::filesystem::path& staged,
                                                     const std::filesystem::path& workFolder);

// Keeps `target` in the work folder's backup area (a hard link, else a copy), then renames
// `staged` over it with mode 0755, flushed to disk before and after: `target` is a launcher at
// every moment, and stays the old one when anything fails. Error codes: "launcher_backup_failed"
// and "launcher_rename_failed", each followed by ":" and the system's reason where there is one.
bool replaceLauncher(const std::filesystem::path& staged, const std::filesystem::path& target,
                     const HelperLog& log, std::string& error);

// Removes the staging folder that held `staged`; never anything outside the work folder.
void removeStagingFolder(const std::filesystem::path& staged, const std::filesystem::path& target,
                         const HelperLog& log);

}  // namespace th::helper
