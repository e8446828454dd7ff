# Project-wide compile flags: strict warnings and optional sanitizers.
add_compile_options(-Wall -Wextra -Wpedantic)
if(TH_WARNINGS_AS_ERRORS)
  add_compile_options(-Werror)
endif()

if(TH_SANITIZE)
  string(REPLACE ";" "," th_sanitizers "${TH_SANITIZE}")
  add_compile_options(-fsanitize=${th_sanitizers} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${th_sanitizers})
endif()
