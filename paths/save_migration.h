#pragma once

namespace th {

// Creates the user's save folder and copies the legacy save files from <install>/save into it,
// once: a file already in the save folder is never overwritten. Quiet; never fails the caller.
void migrateLegacySaveFiles();

}  // namespace th
