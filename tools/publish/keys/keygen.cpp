#include "tools/publish/keys/keygen.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "tools/publish/keys/keys.h"
#include "tools/publish/keys/secret_file.h"
#include "tools/publish/keys/token.h"
#include "update/disk_flush.h"
#include "update/file_descriptor.h"
#include "update/signature.h"

namespace th::publish {
namespace fs = std::filesystem;
namespace {

// A key file under its temporary name until it is whole and on disk.
struct KeyFile {
  fs::path place, temporary;
  const std::string& bytes;
  mode_t mode;
};

// Appended piece by piece: prepending "." to a temporary string made GCC 12 warn (-Wrestrict)
// about an overlapping copy inside std::string's insert at -O2, a false positive.
fs::path temporaryName(const fs::path& place) {
  std::string name = ".";
  name += place.filename().string();
  name += ".new-";
  name += std::to_string(::getpid());
  return place.parent_path() / name;
}

// Created with its final mode, so the private key is never readable by others, not even briefly.
bool writeWhole(const KeyFile& file, std::string& problem) {
  ::unlink(file.temporary.c_str());  // what a killed run of this process ID left
  update::FileDescriptor fd(
      ::open(file.temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, file.mode));
  size_t written = 0;
  while (fd.get() >= 0 && written < file.bytes.size()) {
    const ssize_t n = ::write(fd.get(), file.bytes.data() + written, file.bytes.size() - written);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    written += static_cast<size_t>(n);
  }
  if (fd.get() < 0 || written != file.bytes.size() || ::fsync(fd.get()) != 0 || !fd.close()) {
    problem = file.place.string() + ": cannot be written: " + std::strerror(errno);
    return false;
  }
  return true;
}

// Both files written whole and flushed under temporary names, then linked to their names (which
// never replaces a file, unlike a rename), and the folder flushed: after a power cut the pair is
// there whole, or not at all. A failure removes all it made.
bool placeKeyFiles(const std::vector<KeyFile>& files, std::vector<std::string>& problems) {
  std::string problem;
  size_t placed = 0;
  bool ok = std::all_of(files.begin(), files.end(),
                        [&](const KeyFile& file) { return writeWhole(file, problem); });
  for (; ok && placed < files.size(); ++placed) {
    if (::link(files[placed].temporary.c_str(), files[placed].place.c_str()) != 0) {
      problem = files[placed].place.string() + ": cannot be written: " + std::strerror(errno);
      ok = false;
      break;
    }
  }
  for (const KeyFile& file : files) ::unlink(file.temporary.c_str());
  for (size_t i = 0; !ok && i < placed; ++i) ::unlink(files[i].place.c_str());
  if (ok && !update::flushToDisk(files[0].place.parent_path())) {
    problem = files[0].place.parent_path().string() + ": cannot be flushed to disk";
    ok = false;
  }
  if (!ok) problems.push_back(problem);
  return ok;
}

// A fresh pair in memory: the private key's PEM, encrypted unless asked not to, and the public's.
bool makeFileKey(const KeygenOptions& options, std::string& privatePem, std::string& publicPem,
                 std::vector<std::string>& problems) {
  Passphrase passphrase;
  std::string problem, code;
  if (!options.unencrypted &&
      !passphrase.read(options.passphrase, "Passphrase for the new signing key: ", true, problem)) {
    problems.push_back(problem);
    return false;
  }
  PrivateKey key;
  if (!generateKey(key, code) ||
      !privateKeyPem(key.get(), options.unencrypted ? nullptr : &passphrase.text(), privatePem,
                     code) ||
      !publicKeyPem(key.get(), publicPem, code)) {
    problems.push_back("key generation failed: " + code);
    return false;
  }
  return true;
}

// A pair made in the token, which keeps the private half: only the public one comes out.
bool makeTokenKey(const KeygenOptions& options, std::string& publicPem,
                  std::vector<std::string>& problems) {
  std::string problem;
  if (!generateTokenKeyPair(options.token, options.rsa, publicPem, problem)) {
    problems.push_back(problem);
    return false;
  }
  return true;
}

}  // namespace

bool generateKeyPair(const KeygenOptions& options, KeygenResult& result,
                     std::vector<std::string>& problems) {
  const fs::path& out = options.out;
  const bool inToken = options.token.given();
  KeygenResult made{
      inToken ? fs::path() : out / "update-private-key.pem", out / "update-public-key.pem", {}};
  std::error_code error;
  for (const fs::path& file : {made.privateKey, made.publicKey}) {
    if (!file.empty() && fs::exists(fs::symlink_status(file, error))) {
      problems.push_back(file.string() + ": already exists; a key is never overwritten");
    }
  }
  std::string privatePem, publicPem;
  if (!problems.empty() || !(inToken ? makeTokenKey(options, publicPem, problems)
                                     : makeFileKey(options, privatePem, publicPem, problems))) {
    return false;
  }
  fs::create_directories(out, error);
  std::vector<KeyFile> files;
  if (!inToken)
    files.push_back({made.privateKey, temporaryName(made.privateKey), privatePem, 0600});
  files.push_back({made.publicKey, temporaryName(made.publicKey), publicPem, 0644});
  const bool placed = placeKeyFiles(files, problems);
  wipe(privatePem);
  if (!placed) return false;
  made.fingerprint = update::sha256Bytes(publicPem);
  result = made;
  return true;
}

}  // namespace th::publish
