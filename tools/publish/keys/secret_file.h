#pragma once
// Files that hold a secret (the signing key, a passphrase): read whole from one descriptor, so
// that the mode judged is the mode of the bytes read, and wiped from memory once used.

#include <sys/types.h>

#include <filesystem>
#include <string>

namespace th::publish {

// Reads `file` into `bytes` and its mode into `mode`. On failure `problem` names the cause
// ("cannot be read: No such file or directory", "not a regular file").
bool readSecretFile(const std::filesystem::path& file, std::string& bytes, mode_t& mode,
                    std::string& problem);

// Overwrites the text's bytes before clearing it.
void wipe(std::string& text);

}  // namespace th::publish
