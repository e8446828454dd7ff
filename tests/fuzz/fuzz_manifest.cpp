#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/fuzz/fuzz_check.h"
#include "update/manifest.h"
#include "update/platform.h"
#include "update/safe_path.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  th::update::Manifest out;
  out.version = "previous";
  std::string error = "previous";
  if (th::update::parseManifest(text, out, error)) {
    TH_FUZZ_CHECK(error == "previous");
    TH_FUZZ_CHECK(out.format == 1 && out.product == th::update::gameBinaryName());
    TH_FUZZ_CHECK(!out.version.empty() && !out.platform.empty());
    TH_FUZZ_CHECK(!out.files.empty());
    for (const auto& file : out.files) {
      TH_FUZZ_CHECK(th::update::safeRelativePath(file.path));
      TH_FUZZ_CHECK(file.sha256.size() == 64);
    }
  } else {
    TH_FUZZ_CHECK(error == "manifest_header_invalid" || error == "manifest_file_invalid" ||
                  error == "manifest_has_no_files");
    TH_FUZZ_CHECK(out.version == "previous" && out.files.empty() && out.product.empty());
  }
  return 0;
}
