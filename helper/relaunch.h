#pragma once
// Starting the (new) launcher again once the helper is done.

#include <filesystem>
#include <string>

namespace th::helper {

// Starts `program` with its own folder as working directory and no arguments, with the signals
// the helper was started with and its standard streams, and does not wait for it. In a session
// of its own: the launcher that a terminal started has ended, and a terminal that closes now
// hangs up its old session, not the successor. True once the program image was executed;
// otherwise `error` is "relaunch_fork_failed" or "relaunch_exec_failed:" with the system's reason.
bool relaunch(const std::filesystem::path& program, std::string& error);

}  // namespace th::helper
