#undef NDEBUG  // the invariants are checked in every build; a failed one is a crash to libFuzzer
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <string>

#include "update/manifest.h"
#include "update/platform.h"
#include "update/safe_path.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  th::update::Manifest out;
  out.version = "previous";
  std::string error = "previous";
  if (th::update::parseManifest(text, out, error)) {
    assert(error == "previous");
    assert(out.format == 1 && out.product == th::update::gameBinaryName());
    assert(!out.version.empty() && !out.platform.empty());
    assert(!out.files.empty());
    for (const auto& file : out.files) {
      assert(th::update::safeRelativePath(file.path));
      assert(file.sha256.size() == 64);
    }
  } else {
    assert(error == "manifest_header_invalid" || error == "manifest_file_invalid" ||
           error == "manifest_has_no_files");
    assert(out.version == "previous" && out.files.empty() && out.product.empty());
  }
  return 0;
}
