# Third-party libraries. SDL3 comes from the system when pkg-config knows it, otherwise from the
# static build that scripts/setup leaves in .deps/prefix.
find_package(CURL REQUIRED)
find_package(OpenSSL 3 REQUIRED)
find_package(Threads REQUIRED)

find_package(PkgConfig REQUIRED)
pkg_check_modules(TH_SYSTEM_SDL3 IMPORTED_TARGET sdl3 sdl3-image)
# p11-kit loads a hardware token's PKCS#11 module, for release keys that never leave the token.
pkg_check_modules(TH_P11_KIT REQUIRED IMPORTED_TARGET p11-kit-1)
if(TH_SYSTEM_SDL3_FOUND)
  add_library(th_sdl INTERFACE)
  target_link_libraries(th_sdl INTERFACE PkgConfig::TH_SYSTEM_SDL3)
else()
  list(APPEND CMAKE_PREFIX_PATH "${PROJECT_SOURCE_DIR}/.deps/prefix")
  find_package(SDL3 CONFIG REQUIRED)
  find_package(SDL3_image CONFIG REQUIRED)
  add_library(th_sdl INTERFACE)
  target_link_libraries(th_sdl INTERFACE SDL3_image::SDL3_image SDL3::SDL3)
endif()

if(TH_BUILD_TESTS)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()
