// Everything the update server sends, from one input: read as a manifest, as one of its paths
// and, split at the first NUL byte, as two versions. libFuzzer records a failed assert as a crash.
#undef NDEBUG
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <string>

#include "update/manifest.h"
#include "update/platform.h"
#include "update/safe_path.h"
#include "update/version.h"

namespace {

using namespace th::update;

void checkManifest(const std::string& text) {
  Manifest out;
  out.version = "previous";
  std::string error = "previous";
  if (!parseManifest(text, out, error)) {
    assert(error == "manifest_header_invalid" || error == "manifest_file_invalid" ||
           error == "manifest_has_no_files");
    assert(out.version == "previous" && out.files.empty() && out.product.empty());
    return;
  }
  assert(error == "previous" && out.format == 1 && out.product == gameBinaryName());
  assert(!out.version.empty() && !out.platform.empty() && !out.files.empty());
  for (const auto& file : out.files)
    assert(safeRelativePath(file.path) && file.sha256.size() == 64);
}

void checkPath(const std::string& path) {
  if (safeRelativePath(path)) {
    assert(!path.empty() && path.size() <= 240 && path.find(':') == std::string::npos);
    assert(path.front() != '/' && path.front() != '\\');
    assert(("/" + path + "/").find("/./") == std::string::npos);
    assert(("/" + path + "/").find("/../") == std::string::npos);
    for (const char* reserved : {"save/", "userdata/", ".tarnhollow-update/"})
      assert(!path.starts_with(reserved));
  }
  // Anything below a reserved folder, or climbing out, is refused whatever it is called.
  assert(!safeRelativePath("save/" + path) && !safeRelativePath(".tarnhollow-update//" + path));
  assert(!safeRelativePath("../" + path) && !safeRelativePath(path + "/.."));
}

void checkVersions(const std::string& a, const std::string& b) {
  const int forward = compareVersion(a, b);
  assert((forward == -1 || forward == 0 || forward == 1) && forward == -compareVersion(b, a));
  assert(compareVersion(a, a) == 0 && compareVersion(b, b) == 0);
  assert(compareVersion(a + "-rc", b) == forward);  // a suffix after the numbers never matters
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  checkManifest(input);
  checkPath(input);
  const std::size_t split = input.find('\0');
  checkVersions(input.substr(0, split), split == std::string::npos ? "" : input.substr(split + 1));
  return 0;
}
