#include "tools/publish/keygen.h"

#include <fcntl.h>
#include <unistd.h>

#include <system_error>

#include "tools/publish/keys.h"
#include "update/disk_flush.h"
#include "update/file_descriptor.h"
#include "update/signature.h"

namespace th::publish {
namespace fs = std::filesystem;
namespace {

// Created with its final mode, so the private key is never readable by others, not even briefly.
bool writeNewFile(const fs::path& path, const std::string& bytes, mode_t mode) {
  update::FileDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  if (file.get() < 0) return false;
  size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t n = write(file.get(), bytes.data() + written, bytes.size() - written);
    if (n <= 0) break;
    written += static_cast<size_t>(n);
  }
  return written == bytes.size() && update::flushToDisk(path) && file.close();
}

}  // namespace

bool generateKeyPair(const KeygenOptions& options, KeygenResult& result,
                     std::vector<std::string>& problems) {
  const fs::path& out = options.out;
  KeygenResult made{out / "update-private-key.pem", out / "update-public-key.pem", {}};
  std::error_code error;
  for (const fs::path& file : {made.privateKey, made.publicKey}) {
    if (fs::exists(fs::symlink_status(file, error))) {
      problems.push_back(file.string() + ": already exists; a key is never overwritten");
    }
  }
  Passphrase passphrase;
  std::string problem;
  if (problems.empty() && !options.unencrypted &&
      !passphrase.read(options.passphrase, "Passphrase for the new signing key: ", true, problem)) {
    problems.push_back(problem);
  }
  if (!problems.empty()) return false;
  fs::create_directories(out, error);
  PrivateKey key;
  std::string privatePem, publicPem, code;
  if (!generateKey(key, code) ||
      !privateKeyPem(key.get(), options.unencrypted ? nullptr : &passphrase.text(), privatePem,
                     code) ||
      !publicKeyPem(key.get(), publicPem, code)) {
    problems.push_back("key generation failed: " + code);
    return false;
  }
  if (!writeNewFile(made.privateKey, privatePem, 0600) ||
      !writeNewFile(made.publicKey, publicPem, 0644)) {
    problems.push_back(out.string() + ": cannot write the key files");
    return false;
  }
  made.fingerprint = update::sha256Bytes(publicPem);
  result = made;
  return true;
}

}  // namespace th::publish
