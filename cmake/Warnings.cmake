# Project-wide compile flags: strict warnings, optional library assertions and sanitizers.
add_compile_options(-Wall -Wextra -Wpedantic)
if(TH_WARNINGS_AS_ERRORS)
  add_compile_options(-Werror)
endif()
# Bounds-checked standard containers in test builds, so that a read past a vector's end fails the
# test that makes it instead of reading whatever lies beyond.
if(TH_LIBRARY_ASSERTIONS)
  add_compile_definitions(_GLIBCXX_ASSERTIONS)
endif()

if(TH_SANITIZE)
  string(REPLACE ";" "," th_sanitizers "${TH_SANITIZE}")
  add_compile_options(-fsanitize=${th_sanitizers} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${th_sanitizers})
endif()
