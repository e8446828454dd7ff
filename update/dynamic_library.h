#pragma once
// Libraries loaded on first use, with local scope, so that they cost the launcher's start
// nothing: linked, they are loaded before the first frame, and every symbol that the X11 and GL
// libraries look up later is searched in them too. Never unloaded.

#include <dlfcn.h>

namespace th::update {

// Null when the library cannot be loaded.
inline void* loadLibrary(const char* soname) { return ::dlopen(soname, RTLD_NOW | RTLD_LOCAL); }

// False when `library` is null or lacks `name`.
template <typename Function>
bool resolve(void* library, const char* name, Function& function) {
  function = library != nullptr ? reinterpret_cast<Function>(::dlsym(library, name)) : nullptr;
  return function != nullptr;
}

}  // namespace th::update
