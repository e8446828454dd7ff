#pragma once
// Swapping the staged launcher in for the installed one, and tidying the update work folder.

#include <filesystem>
#include <optional>
#include <string>

#include "helper/helper_log.h"
#include "update/file_descriptor.h"

namespace th::helper {

// The update work folder of the install that holds `target`.
std::filesystem::path workFolderOf(const std::filesystem::path& target);

// The "stage-" folder directly inside `workFolder` that holds `staged`, if it lies in one.
std::optional<std::filesystem::path> stagingFolderOf(const std::filesystem::path& staged,
                                                     const std::filesystem::path& workFolder);

// Gives `judged`, the file open at `staged`, mode 0755 and flushes it, keeps `target` in the work
// folder's backup area (a hard link, else a copy), then renames `staged` over it and flushes the
// folder: `target` is a launcher at every moment, and is the old one when anything fails. Error
// codes: "launcher_mode_failed", "launcher_backup_failed" and "launcher_rename_failed", each
// followed by ":" and the system's reason where there is one, and "staged_launcher_changed"
// when what the rename installed is not `judged` (the old launcher is put back).
bool replaceLauncher(const update::FileDescriptor& judged, const std::filesystem::path& staged,
                     const std::filesystem::path& target, const HelperLog& log, std::string& error);

// Removes the staging folder that held `staged`; never anything outside the work folder.
void removeStagingFolder(const std::filesystem::path& staged, const std::filesystem::path& target,
                         const HelperLog& log);

}  // namespace th::helper
