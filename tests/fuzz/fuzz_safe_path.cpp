#undef NDEBUG  // the invariants are checked in every build; a failed one is a crash to libFuzzer
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <string>

#include "update/safe_path.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string path(reinterpret_cast<const char*>(data), size);
  const bool accepted = th::update::safeRelativePath(path);
  assert(accepted == th::update::safeRelativePath(path));
  if (accepted) {
    assert(!path.empty() && path.size() <= 240);
    assert(path.front() != '/' && path.front() != '\\');
    assert(path.find(':') == std::string::npos);
    assert(("/" + path + "/").find("/./") == std::string::npos);
    assert(("/" + path + "/").find("/../") == std::string::npos);
    assert(path.rfind("save/", 0) != 0 && path.rfind("userdata/", 0) != 0 &&
           path.rfind(".tarnhollow-update/", 0) != 0);
  }
  // Anything below a reserved folder, or climbing out, is refused whatever it is called.
  assert(!th::update::safeRelativePath("save/" + path));
  assert(!th::update::safeRelativePath(".tarnhollow-update//" + path));
  assert(!th::update::safeRelativePath("../" + path));
  assert(!th::update::safeRelativePath(path + "/.."));
  return 0;
}
