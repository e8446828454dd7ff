#pragma once
// Starting the (new) launcher again once the helper is done.

#include <filesystem>
#include <string>

namespace th::helper {

// Starts `program` with its own folder as working directory and no arguments, in a session of
// its own, and does not wait for it. True once the program image was executed; otherwise
// `error` is "relaunch_fork_failed" or "relaunch_exec_failed:" with the system's reason.
bool relaunch(const std::filesystem::path& program, std::string& error);

}  // namespace th::helper
