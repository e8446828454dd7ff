#include <cstddef>
#include <cstdint>
#include <string>

#include "tests/fuzz/fuzz_check.h"
#include "update/safe_path.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path(reinterpret_cast<const char*>(data), size);
  const bool accepted = th::update::safeRelativePath(path);
  TH_FUZZ_CHECK(accepted == th::update::safeRelativePath(path));
  if (accepted) {
    TH_FUZZ_CHECK(!path.empty() && path.size() <= 240);
    TH_FUZZ_CHECK(path.front() != '/' && path.front() != '\\');
    TH_FUZZ_CHECK(path.find(':') == std::string::npos);
    TH_FUZZ_CHECK(("/" + path + "/").find("/./") == std::string::npos);
    TH_FUZZ_CHECK(("/" + path + "/").find("/../") == std::string::npos);
    TH_FUZZ_CHECK(path.rfind("save/", 0) != 0 && path.rfind("userdata/", 0) != 0 &&
                  path.rfind(".tarnhollow-update/", 0) != 0);
  }
  // Anything below a reserved folder, or climbing out, is refused whatever it is called.
  TH_FUZZ_CHECK(!th::update::safeRelativePath("save/" + path));
  TH_FUZZ_CHECK(!th::update::safeRelativePath(".tarnhollow-update//" + path));
  TH_FUZZ_CHECK(!th::update::safeRelativePath("../" + path));
  TH_FUZZ_CHECK(!th::update::safeRelativePath(path + "/.."));
  return 0;
}
